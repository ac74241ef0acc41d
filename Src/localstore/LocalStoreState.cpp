#include "LocalStoreState.h"

#include <json/json.h>

#include <fstream>
#include <sstream>

#include "KanduFile.h"
#include "MediaLog.h"

namespace Velto::Zarn {

void LocalStoreState::beginOutage(int64_t now) {
  if (!outages.empty() && outages.back().end == 0) return;
  outages.push_back(LocalOutage{now, 0});
  if (outages.size() > kMaxOutages) outages.erase(outages.begin());
}

void LocalStoreState::endOutage(int64_t now) {
  if (!outages.empty() && outages.back().end == 0) outages.back().end = now;
}

bool LocalStoreState::load(const std::string& path) {
  std::ifstream in(path);
  Json::Value doc;
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!in || !Json::parseFromStream(builder, in, &doc, &errors) || !doc.isObject()) return false;
  outages.clear();
  for (const Json::Value& o : doc["outages"]) {
    if (o.isObject()) outages.push_back(LocalOutage{o["begin"].asInt64(), o["end"].asInt64()});
  }
  if (outages.size() > kMaxOutages) outages.erase(outages.begin(), outages.end() - kMaxOutages);
  return true;
}

bool LocalStoreState::save(const std::string& path) const {
  Json::Value doc(Json::objectValue);
  doc["outages"] = Json::Value(Json::arrayValue);
  for (const LocalOutage& o : outages) {
    Json::Value v;
    v["begin"] = Json::Int64(o.begin);
    v["end"] = Json::Int64(o.end);
    doc["outages"].append(v);
  }
  doc["disks"] = Json::Value(Json::arrayValue);
  for (const LocalDiskReport& d : disks) {
    Json::Value v;
    v["path"] = d.path;
    v["usable"] = d.usable;
    v["totalBytes"] = Json::UInt64(d.totalBytes);
    v["freeBytes"] = Json::UInt64(d.freeBytes);
    v["awaitingFiles"] = Json::UInt64(d.awaitingFiles);
    v["awaitingBytes"] = Json::UInt64(d.awaitingBytes);
    doc["disks"].append(v);
  }
  doc["awaiting"] = Json::Value(Json::arrayValue);
  for (size_t i = 0; i < awaiting.size() && i < kMaxAwaiting; ++i) {
    Json::Value v;
    v["disk"] = awaiting[i].disk;
    v["path"] = awaiting[i].path;
    v["size"] = Json::UInt64(awaiting[i].size);
    doc["awaiting"].append(v);
  }
  doc["migrated"]["files"] = Json::UInt64(migratedFiles);
  doc["migrated"]["bytes"] = Json::UInt64(migratedBytes);

  const std::string text = Json::StyledWriter().write(doc);
  const std::string temp = path + ".tmp";
  Velto::Kandu::CFile file;
  bool ok = file.open(temp, "w") && file.write(text.data(), text.size()) == static_cast<int64_t>(text.size()) &&
            file.flush();
  ok = file.close() && ok;
  if (!ok || !Velto::Kandu::CFile::rename(temp, path)) {
    ZLOG(ERROR, "CLocalStoreMgr", 0, "cannot write the local store state file %s\n", path.c_str());
    return false;
  }
  return true;
}

}  // namespace Velto::Zarn
