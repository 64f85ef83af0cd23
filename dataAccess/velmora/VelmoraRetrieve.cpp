// Velmora: retrieval through request files.
#include <daLog/Log.h>
#include <dataAccess/common/ArcSysEx.h>
#include <dataAccess/velmora/Velmora.h>
#include <dataAccess/velmora/VelmoraSupport.h>
#include <sybconn/ArcSysUtils.h>
#include <tobasCClient/tobasCClientLib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace fs = std::filesystem;

namespace velmora {

ErrorLine parseErrorLine(const std::string& line, std::string& key, std::string& text) {
  size_t end = line.size();
  if (end && line[end - 1] == '\r') --end;
  const size_t keyAt = line.find_first_not_of(' ');
  if (keyAt == std::string::npos || keyAt >= end) return ErrorLine::Blank;
  const size_t gap = line.find(' ', keyAt);
  const size_t textAt = gap < end ? line.find_first_not_of(' ', gap) : std::string::npos;
  if (textAt == std::string::npos || textAt >= end) return ErrorLine::Malformed;
  key.assign(line, keyAt, gap - keyAt);
  text.assign(line, textAt, end - textAt);
  return ErrorLine::Entry;
}

bool parseErrorFile(const std::string& file, std::vector<ErrorEntry>& entries, std::string& malformed) {
  std::vector<std::string> lines;
  ArcSys::split(file, "\n", lines);
  ErrorEntry entry;
  for (const std::string& line : lines) {
    const ErrorLine kind = parseErrorLine(line, entry.key, entry.text);
    if (kind == ErrorLine::Malformed) {
      malformed = line;
      return false;
    }
    if (kind == ErrorLine::Entry) entries.push_back(entry);
  }
  return true;
}

}  // namespace velmora

namespace {

const char* const kNotPlainName = "is empty, \".\", \"..\", or has '/' or control characters";

// Why a wanted file cannot go into a request file, or empty.
std::string refusal(const VelmoraFileRequest& r) {
  const std::string& key = r.getGlobalKey();
  if (key.empty() || key.find(' ') != std::string::npos || velmora::hasControl(key))
    return "refused: global key empty or with blanks or control characters";
  if (!velmora::plainName(r.getLinkName())) return std::string("refused: link name ") + kNotPlainName;
  return std::string();
}

// "x.req.ERR" -> "x.req.done"; "x.req" -> "x.done".
void markDone(const std::string& file) {
  const std::string done = fs::path(file).replace_extension(Velmora::DONE_EXT).string();
  std::rename(file.c_str(), done.c_str());
}

}  // namespace

std::string Velmora::linkPath_(const std::string& reqName, const std::string& linkName) const {
  return (fs::path(baseDir_) / OUT_DIR / reqName / linkName).lexically_normal().string();
}

Velmora& Velmora::createReqFile_(const std::string& reqName, std::vector<VelmoraFileRequest>& reqs,
                                 std::string& reqFileName) {
  std::string text;
  for (const VelmoraFileRequest& r : reqs)
    text += velmora::fillTemplate(REQ_FILE_TPL, {encodeGlobalKey(r.getGlobalKey()), r.getLinkName()});
  char stamp[tobasSMALL_BUF_SIZE] = {};
  tobasGenIsoTime(6, stamp);
  const std::string name = reqName + "_" + stamp + "_" + std::to_string(getUniqueIndex()) + "." + REQ_EXT;
  reqFileName = (fs::path(baseDir_) / REQ_DIR / name).lexically_normal().string();
  velmora::writeThenRename(reqFileName, text);
  return *this;
}

Velmora& Velmora::request(const std::string& reqName, std::vector<VelmoraFileRequest>& reqs,
                          std::string& reqFileName, PendingMap& pending) {
  reqFileName.clear();
  // The name becomes a folder under out/ and part of a file name under request/.
  if (!velmora::plainName(reqName)) {
    const std::string why = velmora::refuse(std::string("refused: request name ") + kNotPlainName);
    for (VelmoraFileRequest& r : reqs) r.setStatus(why);
    return *this;
  }
  std::vector<VelmoraFileRequest> accepted;
  for (VelmoraFileRequest& r : reqs) {
    const std::string why = refusal(r);
    if (why.empty())
      accepted.push_back(r);
    else
      r.setStatus(velmora::refuse(why));
  }
  createReqFile_(reqName, accepted, reqFileName);
  for (const VelmoraFileRequest& r : accepted) {
    pending.emplace(linkPath_(reqName, r.getLinkName()), r);
    pending.emplace(r.getGlobalKey(), r);
  }
  return *this;
}

Velmora& Velmora::checkReqDelivStatus(const std::string& reqName, PendingMap& pending,
                                      std::vector<VelmoraFileRequest>& delivered) {
  std::error_code ec;
  fs::directory_iterator it(fs::path(baseDir_) / OUT_DIR / reqName, ec);
  int seen = 0;
  for (; !ec && it != fs::directory_iterator() && seen < 1000; it.increment(ec), ++seen) {
    auto hit = pending.find(it->path().lexically_normal().string());
    if (hit == pending.end()) continue;
    hit->second.setDelivered(true);
    auto twin = pending.find(hit->second.getGlobalKey());
    if (twin != pending.end() && twin->second.getLinkName() == hit->second.getLinkName())
      twin->second.setDelivered(true);
    delivered.push_back(hit->second);
  }
  return *this;
}

void Velmora::handleErrorFile_(const std::string& reqName, const std::string& errFile, PendingMap& pending,
                               std::vector<VelmoraFileRequest>& failed) {
  std::string file;
  if (!velmora::readRegularFile(errFile, std::string::npos, file)) return;  // none yet (or not the tool's)
  std::vector<velmora::ErrorEntry> entries;
  std::string malformed;
  const bool wellFormed = velmora::parseErrorFile(file, entries, malformed);
  for (const velmora::ErrorEntry& e : entries) {
    auto hit = pending.find(decodeGlobalKey(e.key));
    if (hit == pending.end() || hit->second.getDelivered() || !hit->second.getStatus().empty()) continue;
    // The key entry may belong to another request that asked for the same file.
    auto twin = pending.find(linkPath_(reqName, hit->second.getLinkName()));
    if (twin == pending.end() || twin->second.getGlobalKey() != hit->second.getGlobalKey()) continue;
    hit->second.setStatus(e.text);
    twin->second.setStatus(e.text);
    failed.push_back(hit->second);
  }
  if (!wellFormed) {
    // The message names checkReqFiles: the text is part of the log format.
    const std::string msg =
        "Velmora::checkReqFiles(): Illegal Error Status Message received from vel_mora: " + malformed;
    DA_LOG_ERROR("%s", msg.c_str());
    throw ArcSysEx(msg);
  }
  markDone(errFile);
  markDone(fs::path(errFile).replace_extension().string());
}

Velmora& Velmora::checkReqErrorStatus(const std::string& reqName, PendingMap& pending,
                                      std::vector<VelmoraFileRequest>& failed) {
  const std::string prefix = reqName + "_";
  const std::string suffix = "." + REQ_EXT + "." + ARCH_STAT_ERR_EXT;
  std::vector<std::string> files;
  std::error_code ec;
  for (fs::directory_iterator it(fs::path(baseDir_) / REQ_DIR, ec); !ec && it != fs::directory_iterator();
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.size() <= prefix.size() + suffix.size() || name.compare(0, prefix.size(), prefix) != 0 ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
      continue;
    // <time>_<index> holds one "_": a longer name belongs to a request named reqName_<more>.
    const std::string middle = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
    if (middle.find('_') == middle.rfind('_') && middle.find('_') != std::string::npos)
      files.push_back(it->path().string());
  }
  for (const std::string& f : files) handleErrorFile_(reqName, f, pending, failed);
  return *this;
}

Velmora& Velmora::checkReqStatus(const std::string& reqName, const std::string& reqFileName,
                                 PendingMap& pending, std::vector<VelmoraFileRequest>& delivered,
                                 std::vector<VelmoraFileRequest>& failed, bool& done) {
  checkReqDelivStatus(reqName, pending, delivered);
  if (!reqFileName.empty()) handleErrorFile_(reqName, reqFileName + "." + ARCH_STAT_ERR_EXT, pending, failed);
  DA_LOG_DEBUG("Delivered files: %d, failing deliveries: %d, expected files: %d",
               static_cast<int>(delivered.size()), static_cast<int>(failed.size()),
               static_cast<int>(pending.size() / 2));
  done = std::all_of(pending.begin(), pending.end(), [](const PendingMap::value_type& e) {
    return e.second.getDelivered() || !e.second.getStatus().empty();
  });
  return *this;
}

Velmora& Velmora::removeFileRequest(const std::string& reqName, VelmoraFileRequest& req,
                                    PendingMap& pending) {
  if (!velmora::plainName(reqName) || !velmora::plainName(req.getLinkName())) {
    velmora::refuse(std::string("refused: no link removed, request or link name ") + kNotPlainName);
    return *this;
  }
  const std::string link = linkPath_(reqName, req.getLinkName());
  pending.erase(link);
  auto twin = pending.find(req.getGlobalKey());
  if (twin != pending.end() && twin->second.getLinkName() == req.getLinkName()) pending.erase(twin);
  std::remove(link.c_str());
  return *this;
}
