#include "tests/support/VelmoraTool.h"

#include <dataAccess/velmora/Velmora.h>

#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace testsupport {
namespace {

std::vector<std::pair<std::string, std::string>> fields(const fs::path& file) {
  std::vector<std::pair<std::string, std::string>> out;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);)
    if (line.find(" | ") != std::string::npos)
      out.emplace_back(line.substr(0, line.find(" | ")), line.substr(line.find(" | ") + 3));
  return out;
}

void put(const fs::path& file, const std::string& text) {
  std::ofstream(file.string() + ".tmp") << text;
  fs::rename(file.string() + ".tmp", file);
}

}  // namespace

void VelmoraTool::runOnce() {
  const fs::path in = fs::path(base_) / "in", req = fs::path(base_) / "request";
  fs::create_directories(in / ".usr");
  fs::create_directories(req);
  for (const auto& e : fs::directory_iterator(in)) {
    if (e.path().extension() != ".lab" || !answered_.insert(e.path()).second) continue;
    std::string key, file;
    for (const auto& f : fields(e.path())) {
      if (f.first == "global_key") key = Velmora::decodeGlobalKey(f.second);
      if (f.first == "filename") file = f.second;
    }
    const bool ok = !refuse.count(key) && fs::exists(file);
    if (ok) archived_[key] = file;
    put(in / ".usr" / (e.path().filename().string() + (ok ? ".OK" : ".ERR")),
        (ok ? "archived " : "refused ") + key);
  }
  for (const auto& e : fs::directory_iterator(req)) {
    if (e.path().extension() != ".req" || !answered_.insert(e.path()).second) continue;
    std::string name = e.path().stem().string();  // <request name>_<time>_<index>
    name.erase(name.rfind('_'));
    const fs::path out = fs::path(base_) / "out" / name.erase(name.rfind('_'));
    fs::create_directories(out);
    std::string key, errors;
    for (const auto& f : fields(e.path())) {
      if (f.first == "global_key")
        key = f.second;
      else if (archived_.count(Velmora::decodeGlobalKey(key)))
        fs::create_symlink(archived_[Velmora::decodeGlobalKey(key)], out / f.second);
      else
        errors += key + " unknown global key\n";
    }
    if (!errors.empty()) put(e.path().string() + ".ERR", errors);
  }
}

}  // namespace testsupport
