#ifndef DATAACCESS_VELMORA_VELMORAARCHREQSMAP_H
#define DATAACCESS_VELMORA_VELMORAARCHREQSMAP_H

#include <dataAccess/velmora/VelmoraArchiveRequest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

// Thread-safe registry of pending archive requests. Each request is one heap
// object owned by the map and registered under four keys: its global key, its
// label file, its OK status file and its error status file, so that a caller
// who sees only a file name finds the request.
//
// Insertion is unique per key: when a key is already present, its entry keeps
// pointing to the request that came first, and the newer request is reachable
// only under its other keys (a request all of whose keys are taken is dropped
// at once). Removal by any key of a request erases exactly the entries that
// point to that request and frees it once; entries of other requests that
// share a key are left alone.
// Thread safety: addEntry, fileConcerned, removeEntry may overlap; getKeys, size, getMap, held requests not.
class VelmoraArchReqsMap {
 public:
  static const int MAPPINGS_PER_REQ = 4;
  using Map = std::map<std::string, VelmoraArchiveRequest*>;

  VelmoraArchReqsMap() = default;
  VelmoraArchReqsMap(const VelmoraArchReqsMap&) = delete;
  VelmoraArchReqsMap& operator=(const VelmoraArchReqsMap&) = delete;
  // Frees every request still held.
  ~VelmoraArchReqsMap();

  // Registers a copy of the six fields of `req` (its status starts empty).
  void addEntry(const VelmoraArchiveRequest& req);
  // The request registered under `key`, or null. The map keeps ownership:
  // the pointer is valid until the request is removed.
  VelmoraArchiveRequest* fileConcerned(const std::string& key);
  // Removes the request registered under `key` (any of its four keys) with
  // all its entries and frees it. An unknown key changes nothing.
  void removeEntry(const std::string& key);

  // Unlocked: not while another thread changes the map. getKeys appends all
  // keys in order; size() is the number of entries (four per request).
  void getKeys(std::vector<std::string>& keys) const;
  int size() const { return static_cast<int>(archReqMap_.size()); }
  Map& getMap() { return archReqMap_; }

 private:
  Map archReqMap_;
  std::mutex mutex_;
};

#endif
