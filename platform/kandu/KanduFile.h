// Kandu local files: a thin, result-code wrapper over stdio for the few local
// files the library touches (the configuration file, the statistics file), and
// a directory search.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace Velto::Kandu {

class CFile {
 public:
  CFile() = default;
  ~CFile() { close(); }
  CFile(const CFile&) = delete;
  CFile& operator=(const CFile&) = delete;

  // fopen modes ("r", "w+", "a", ...). false when the file cannot be opened.
  bool open(const std::string& path, const char* mode);
  bool isOpen() const { return m_file != nullptr; }
  // Bytes moved, 0 at end of file, -1 on error.
  int64_t read(void* buffer, size_t length);
  int64_t write(const void* buffer, size_t length);
  // Reads one line of at most capacity-1 characters (the line break included when
  // it fits), NUL-terminated; false at end of file.
  bool readLine(char* buffer, size_t capacity);
  // origin 0 begin, 1 current, 2 end. New position or -1.
  int64_t seek(int64_t offset, int origin);
  int64_t tell() const;
  int64_t size() const;
  bool flush();
  bool close();  // true when the file was open and closed cleanly

  static bool exists(const std::string& path);
  static bool remove(const std::string& path);
  static bool rename(const std::string& from, const std::string& to);

 private:
  // stdio requires a seek or flush between a read and a following write (and the
  // reverse) on an update stream; the wrapper inserts it so callers need not.
  enum class LastOp { None, Read, Write };
  bool switchTo(LastOp op);

  FILE* m_file = nullptr;
  LastOp m_lastOp = LastOp::None;
};

// Lists a local directory: entries whose names match a '*'/'?' pattern.
class CFileFind {
 public:
  struct Entry {
    std::string name;
    bool isDirectory = false;
    uint64_t size = 0;
  };

  // Reads the whole directory; false when it cannot be opened. "." and ".." are
  // never returned. Entries come sorted by name.
  bool findFiles(const std::string& directory, const char* pattern = "*");
  // Iteration over the last result.
  bool findNext(Entry& out);
  const std::vector<Entry>& entries() const { return m_entries; }

  static bool matches(const char* pattern, const char* name);

 private:
  std::vector<Entry> m_entries;
  size_t m_next = 0;
};

}  // namespace Velto::Kandu
