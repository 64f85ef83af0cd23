// Velmora: construction, key encoding and archiving through label files.
#include <daLog/Log.h>
#include <dataAccess/common/FileReplace.h>
#include <dataAccess/velmora/Velmora.h>
#include <dataAccess/velmora/VelmoraSupport.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>

namespace fs = std::filesystem;

namespace velmora {

std::string fillTemplate(const std::string& tpl, const std::vector<std::string>& args) {
  std::string out;
  size_t from = 0, arg = 0;
  for (size_t at; (at = tpl.find("%s", from)) != std::string::npos; from = at + 2) {
    out.append(tpl, from, at - from);
    if (arg < args.size()) out += args[arg++];
  }
  out.append(tpl, from, std::string::npos);
  return out;
}

bool writeThenRename(const std::string& path, const std::string& text) {
  return dataAccess::replaceFile(path, text) == dataAccess::FileReplace::Written;
}

bool hasControl(const std::string& s) {
  return std::any_of(s.begin(), s.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

bool plainName(const std::string& s) {
  return !s.empty() && s != "." && s != ".." && s.find('/') == std::string::npos && !hasControl(s);
}

std::string refuse(const std::string& why) {
  DA_LOG_ERROR("%s", why.c_str());
  return why;
}

bool readRegularFile(const std::string& path, size_t limit, std::string& text) {
  text.clear();
  // O_NONBLOCK: opening a FIFO without writer, or a device, must not wait.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  const bool regular = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  char buf[4096];
  while (regular && text.size() < limit) {
    const ssize_t n = ::read(fd, buf, std::min(sizeof buf, limit - text.size()));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return regular;
}

}  // namespace velmora

namespace {

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

std::string joined(const std::string& dir, const std::string& name) {
  return (fs::path(dir) / name).lexically_normal().string();
}

}  // namespace

Velmora::Velmora(const std::string& clientId, const std::string& sysId, const std::string& baseDir)
    : clientId_(clientId), sysId_(sysId), baseDir_(baseDir) {}

Velmora& Velmora::setPars(const std::string& clientId, const std::string& sysId, const std::string& baseDir) {
  clientId_ = clientId;
  sysId_ = sysId;
  baseDir_ = baseDir;
  inputStagingDir_ = joined(baseDir, IN_DIR);
  requestDir_ = joined(baseDir, REQ_DIR);
  return *this;
}

unsigned int Velmora::getUniqueIndex() {
  std::lock_guard<std::mutex> lock(uniqueCountMutex_);
  return ++uniqueCount_;
}

// Each replacement text holds no match of its pattern, so one left-to-right
// pass gives what restarting from the start after each replacement gives.
std::string Velmora::encodeGlobalKey(const std::string& key) {
  return replaceAll(key, "_", GLOB_KEY_UNDERSCORE);
}
std::string Velmora::decodeGlobalKey(const std::string& key) {
  return replaceAll(key, GLOB_KEY_UNDERSCORE, "_");
}

Velmora& Velmora::createLabelFile_(const std::string& context, const std::string& duration,
                                   const std::string& globalKey, const std::string& dataFile,
                                   const std::string& virtualVolId, std::string& labelFileName) {
  const std::string base = fs::path(dataFile).filename().string();
  DA_LOG_DEBUG("Base Dir: %s, PT Input Dir: %s, Base Name: %s, Extension: %s", baseDir_.c_str(),
               IN_DIR.c_str(), base.c_str(), LAB_EXT.c_str());
  labelFileName = joined(joined(baseDir_, IN_DIR), base + "." + LAB_EXT);
  DA_LOG_DEBUG(
      "Creating Label File. Label Filename: %s, Context: %s, Duration: %s, Global Key: %s, Filename: %s, "
      "Virtual "
      "Volume ID: %s",
      labelFileName.c_str(), context.c_str(), duration.c_str(), globalKey.c_str(), dataFile.c_str(),
      virtualVolId.c_str());
  const std::string text =
      velmora::fillTemplate(LABEL_FILE_TPL, {LAB_FILE_VER, context, context, duration, duration,
                                             encodeGlobalKey(globalKey), dataFile, virtualVolId});
  DA_LOG_DEBUG("Contents of Label File: \n\n%s", text.c_str());
  velmora::writeThenRename(labelFileName, text + "\n");
  return *this;
}

Velmora& Velmora::archive(const std::string& context, const std::string& duration,
                          const std::string& globalKey, const std::string& dataFile,
                          const std::string& virtualVolId, VelmoraArchiveRequest& req) {
  // A line feed in a value would start a label line of its own.
  const std::pair<const char*, const std::string*> values[] = {{"context", &context},
                                                               {"duration", &duration},
                                                               {"global key", &globalKey},
                                                               {"data file name", &dataFile},
                                                               {"virtual volume id", &virtualVolId}};
  std::string refused;
  for (const auto& [name, value] : values)
    if (velmora::hasControl(*value))  // the last one is named
      refused = std::string("refused: label file not written, the ") + name + " has control characters";
  std::string written;
  if (refused.empty()) createLabelFile_(context, duration, globalKey, dataFile, virtualVolId, written);
  const fs::path label(dataFile + "." + LAB_EXT);
  const fs::path usr = label.parent_path() / USR_DIR;
  const std::string leaf = label.filename().string();
  req.setAll(globalKey, virtualVolId, dataFile, label.string(), joined(usr, leaf + "." + ARCH_STAT_OK_EXT),
             joined(usr, leaf + "." + ARCH_STAT_ERR_EXT));
  if (!refused.empty()) req.setStatus(velmora::refuse(refused));
  return *this;
}

Velmora& Velmora::archive(const std::string& context, const std::string& duration,
                          const std::string& globalKey, const std::string& dataFile,
                          const std::string& virtualVolId, VelmoraArchReqsMap& map) {
  VelmoraArchiveRequest req;
  archive(context, duration, globalKey, dataFile, virtualVolId, req);
  if (req.getStatus().empty()) map.addEntry(req);  // a refused request would wait for ever
  return *this;
}

Velmora& Velmora::checkArchStatus(bool removeFiles, VelmoraArchReqsMap& map,
                                  std::vector<VelmoraArchiveRequest>& okReqs,
                                  std::vector<VelmoraArchiveRequest>& errReqs) {
  const std::string statusDir = joined(joined(baseDir_, IN_DIR), USR_DIR);
  const std::string okSuffix = "." + ARCH_STAT_OK_EXT;
  const bool debug = daLog::debugEnabled();
  int seen = 0;
  std::string text;  // one buffer for every status file: no allocation a file
  for (const fs::directory_entry& entry : fs::directory_iterator(statusDir)) {
    if (++seen > 100000) break;  // a runaway directory: the rest waits for the next call
    const std::string& path = entry.path().native();
    if (debug) DA_LOG_DEBUG("Checking candidate vel_mora output file: %s", path.c_str());
    if (VelmoraArchiveRequest* req = map.fileConcerned(path)) {
      if (debug) DA_LOG_DEBUG("Found matching status file: %s. Loading it.", path.c_str());
      // The tool writes regular files: a link, FIFO or device there is not its answer.
      if (velmora::readRegularFile(path, 1024, text)) {
        req->setStatus(text.c_str());  // up to the first NUL
        const size_t dot = path.rfind('.');
        if (dot != std::string::npos && path.compare(dot, std::string::npos, okSuffix) == 0) {
          okReqs.push_back(*req);
        } else {
          errReqs.push_back(*req);
          std::remove(req->getLabelFile().c_str());
        }
      }
    }
    if (removeFiles) std::remove(path.c_str());
  }
  return *this;
}

Velmora& Velmora::removeArchStatusFiles(std::vector<VelmoraArchiveRequest>& reqs) {
  for (const VelmoraArchiveRequest& r : reqs)
    for (const std::string* f :
         {&r.getLabelFile(), &r.getDataFile(), &r.getOkStatFile(), &r.getErrStatFile()})
      std::remove(f->c_str());
  return *this;
}
