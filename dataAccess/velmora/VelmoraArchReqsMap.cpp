#include <daLog/Log.h>
#include <dataAccess/velmora/VelmoraArchReqsMap.h>

namespace {

void keysOf(const VelmoraArchiveRequest& r,
            const std::string* (&keys)[VelmoraArchReqsMap::MAPPINGS_PER_REQ]) {
  keys[0] = &r.getGlobalKey();
  keys[1] = &r.getLabelFile();
  keys[2] = &r.getOkStatFile();
  keys[3] = &r.getErrStatFile();
}

}  // namespace

VelmoraArchReqsMap::~VelmoraArchReqsMap() {
  std::vector<std::string> keys;
  getKeys(keys);
  for (const std::string& key : keys) removeEntry(key);
}

void VelmoraArchReqsMap::addEntry(const VelmoraArchiveRequest& req) {
  auto* entry = new VelmoraArchiveRequest;
  entry->setAll(req);
  const std::string* keys[MAPPINGS_PER_REQ];
  keysOf(*entry, keys);
  bool held = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const std::string* key : keys)
      if (archReqMap_.emplace(*key, entry).first->second == entry) held = true;
  }
  if (!held) delete entry;
}

VelmoraArchiveRequest* VelmoraArchReqsMap::fileConcerned(const std::string& key) {
  DA_LOG_DEBUG(
      "VelmoraArchReqsMap::fileConcerned: Checking if key: |%s| is relevant for pending vel_mora archive "
      "requests",
      key.c_str());
  VelmoraArchiveRequest* found = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = archReqMap_.find(key);
    if (it != archReqMap_.end()) found = it->second;
  }
  if (found)
    DA_LOG_DEBUG(
        "VelmoraArchReqsMap::fileConcerned: Key: |%s| is relevant for pending vel_mora archive requests",
        key.c_str());
  else
    DA_LOG_DEBUG(
        "VelmoraArchReqsMap::fileConcerned: Key: |%s| is not relevant for pending vel_mora archive requests",
        key.c_str());
  return found;
}

void VelmoraArchReqsMap::removeEntry(const std::string& key) {
  // fileConcerned writes the look-up lines of the removal's log. Its pointer is
  // not used: another thread may remove the request before the lock below is
  // taken, so the request is looked up again under the lock.
  fileConcerned(key);
  std::lock_guard<std::mutex> lock(mutex_);
  auto hit = archReqMap_.find(key);
  if (hit == archReqMap_.end()) return;
  VelmoraArchiveRequest* req = hit->second;
  const std::string* keys[MAPPINGS_PER_REQ];
  keysOf(*req, keys);
  for (const std::string* k : keys) {
    DA_LOG_DEBUG("Locating/deleting vel_mora Archive Request with key: %s", k->c_str());
    auto it = archReqMap_.find(*k);
    // A key shared with an earlier request stays with that request.
    if (it != archReqMap_.end() && it->second == req) archReqMap_.erase(it);
  }
  DA_LOG_DEBUG("Deleted all entries in connection with reference key: %s", key.c_str());
  // Only the request's own keys can point to it, so it is now unreferenced.
  // Freed last: `key` may be one of its own strings.
  delete req;
}

void VelmoraArchReqsMap::getKeys(std::vector<std::string>& keys) const {
  for (const auto& entry : archReqMap_) keys.push_back(entry.first);
}
