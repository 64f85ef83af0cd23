#ifndef TESTS_SUPPORT_VELMORATOOL_H
#define TESTS_SUPPORT_VELMORATOOL_H

#include <dataAccess/velmora/Velmora.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>

namespace testsupport {

// The request-file tool in process. runOnce() answers new label files with in/.usr/<label>.OK (.ERR: no data
// file), new request files with links in out/<request name>/ and unknown keys in <request file>.ERR.
class VelmoraTool {
 public:
  explicit VelmoraTool(std::string base) : base_(std::move(base)) {}

  void runOnce() {
    namespace fs = std::filesystem;
    const fs::path in = fs::path(base_) / "in", req = fs::path(base_) / "request";
    for (const fs::path& dir : {in / ".usr", req}) fs::create_directories(dir);
    auto put = [](const fs::path& file, const std::string& text) {
      std::ofstream(file.string() + ".tmp") << text;
      fs::rename(file.string() + ".tmp", file);
    };
    for (const auto& e : fs::directory_iterator(in)) {
      if (e.path().extension() != ".lab" || !answered_.insert(e.path()).second) continue;
      std::string key, file, line;
      for (std::ifstream label(e.path()); std::getline(label, line);) {
        if (line.rfind("global_key | ", 0) == 0) key = Velmora::decodeGlobalKey(line.substr(13));
        if (line.rfind("filename | ", 0) == 0) file = line.substr(11);
      }
      const bool ok = fs::exists(file) && archived_.emplace(key, file).second;
      put(in / ".usr" / (e.path().filename().string() + (ok ? ".OK" : ".ERR")),
          (ok ? "archived " : "no file ") + key);
    }
    for (const auto& e : fs::directory_iterator(req)) {
      if (e.path().extension() != ".req" || !answered_.insert(e.path()).second) continue;
      std::string name = e.path().stem().string();  // <request name>_<time>_<index>
      name.erase(name.rfind('_'));
      const fs::path out = fs::path(base_) / "out" / name.erase(name.rfind('_'));
      fs::create_directories(out);
      std::string key, link, errors;
      for (std::ifstream request(e.path()); std::getline(request, key) && std::getline(request, link);) {
        const std::string plain = Velmora::decodeGlobalKey(key.substr(13));  // after "global_key | "
        if (archived_.count(plain))
          fs::create_symlink(archived_[plain], out / link.substr(12));  // after "link_name | "
        else
          errors += key.substr(13) + " unknown global key\n";
      }
      if (!errors.empty()) put(e.path().string() + ".ERR", errors);
    }
  }

 private:
  std::string base_;
  std::map<std::string, std::string> archived_;  // plain key -> data file
  std::set<std::string> answered_;
};

}  // namespace testsupport

#endif
