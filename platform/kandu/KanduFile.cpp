#include "KanduFile.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace Velto::Kandu {

bool CFile::open(const std::string& path, const char* mode) {
  close();
  if (mode == nullptr) return false;
  m_file = std::fopen(path.c_str(), mode);
  m_lastOp = LastOp::None;
  return m_file != nullptr;
}

bool CFile::switchTo(LastOp op) {
  if (m_lastOp != LastOp::None && m_lastOp != op && std::fseek(m_file, 0, SEEK_CUR) != 0) return false;
  m_lastOp = op;
  return true;
}

int64_t CFile::read(void* buffer, size_t length) {
  if (m_file == nullptr || !switchTo(LastOp::Read)) return -1;
  if (length == 0) return 0;
  size_t n = std::fread(buffer, 1, length, m_file);
  if (n == 0 && std::ferror(m_file)) {
    std::clearerr(m_file);
    return -1;
  }
  return static_cast<int64_t>(n);
}

int64_t CFile::write(const void* buffer, size_t length) {
  if (m_file == nullptr || !switchTo(LastOp::Write)) return -1;
  if (length == 0) return 0;
  size_t n = std::fwrite(buffer, 1, length, m_file);
  if (n < length && std::ferror(m_file)) {
    std::clearerr(m_file);
    return n == 0 ? -1 : static_cast<int64_t>(n);
  }
  return static_cast<int64_t>(n);
}

bool CFile::readLine(char* buffer, size_t capacity) {
  if (m_file == nullptr || buffer == nullptr || capacity < 2 || !switchTo(LastOp::Read)) return false;
  // fgets takes an int capacity; lines longer than that come back in pieces.
  int limit = capacity > static_cast<size_t>(INT32_MAX) ? INT32_MAX : static_cast<int>(capacity);
  if (std::fgets(buffer, limit, m_file) == nullptr) {
    buffer[0] = '\0';
    return false;
  }
  return true;
}

int64_t CFile::seek(int64_t offset, int origin) {
  if (m_file == nullptr) return -1;
  int whence;
  switch (origin) {
    case 0: whence = SEEK_SET; break;
    case 1: whence = SEEK_CUR; break;
    case 2: whence = SEEK_END; break;
    default: return -1;
  }
  if (::fseeko(m_file, static_cast<off_t>(offset), whence) != 0) return -1;
  m_lastOp = LastOp::None;  // a seek is itself the switch point between reads and writes
  return tell();
}

int64_t CFile::tell() const {
  if (m_file == nullptr) return -1;
  return static_cast<int64_t>(::ftello(m_file));
}

int64_t CFile::size() const {
  if (m_file == nullptr) return -1;
  // Buffered writes are not yet in the file; count them too.
  if (std::fflush(m_file) != 0) return -1;
  struct stat st;
  if (::fstat(::fileno(m_file), &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

bool CFile::flush() { return m_file != nullptr && std::fflush(m_file) == 0; }

bool CFile::close() {
  if (m_file == nullptr) return false;
  int rc = std::fclose(m_file);
  m_file = nullptr;
  m_lastOp = LastOp::None;
  return rc == 0;
}

bool CFile::exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool CFile::remove(const std::string& path) { return std::remove(path.c_str()) == 0; }

bool CFile::rename(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0;
}

bool CFileFind::findFiles(const std::string& directory, const char* pattern) {
  m_entries.clear();
  m_next = 0;
  if (pattern == nullptr) pattern = "*";
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) return false;
  while (struct dirent* ent = ::readdir(dir)) {
    const char* name = ent->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    if (!matches(pattern, name)) continue;
    Entry entry;
    entry.name = name;
    struct stat st;
    if (::fstatat(::dirfd(dir), name, &st, 0) == 0) {
      entry.isDirectory = S_ISDIR(st.st_mode);
      entry.size = entry.isDirectory ? 0 : static_cast<uint64_t>(st.st_size);
    } else {
      entry.isDirectory = ent->d_type == DT_DIR;  // a dangling link or a racing removal
    }
    m_entries.push_back(std::move(entry));
  }
  ::closedir(dir);
  std::sort(m_entries.begin(), m_entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
  return true;
}

bool CFileFind::findNext(Entry& out) {
  if (m_next >= m_entries.size()) return false;
  out = m_entries[m_next++];
  return true;
}

bool CFileFind::matches(const char* pattern, const char* name) {
  if (pattern == nullptr || name == nullptr) return false;
  // Greedy matching with one backtrack point: the last '*' seen and the name
  // position it has absorbed up to. Linear in practice, no recursion.
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*name != '\0') {
    if (*pattern == '*') {
      star = pattern++;
      resume = name;
    } else if (*pattern == '?' || *pattern == *name) {
      ++pattern;
      ++name;
    } else if (star != nullptr) {
      pattern = star + 1;
      name = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == '*') ++pattern;
  return *pattern == '\0';
}

}  // namespace Velto::Kandu
