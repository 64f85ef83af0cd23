// The archive status check against a raw loop, with DEBUG logging masked by
// the host's ACE priority mask: Velmora::checkArchStatus over a status
// directory of 100,000 files that all belong to pending requests, against a
// loop that lists the directory with std::filesystem::directory_iterator (as
// a C++17 program would, and as this library does), looks each name up in a
// std::map and reads the first 1,024 bytes of each file into its record,
// opening it as safely as the library must (no link followed, no wait on a
// FIFO, regular files only).
// Also prints the heap the request map takes per pending request.
#include <ace/Log_Msg.h>
#include <dataAccess/velmora/Velmora.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/BenchUtil.h"

namespace {

const int kFiles = benchutil::size(100000, 5000);
std::string g_base;
std::unique_ptr<VelmoraArchReqsMap> g_map;
std::map<std::string, VelmoraArchiveRequest> g_raw;

std::string name(int i) { return "frame" + std::to_string(i) + ".fits"; }

void makeRequests() {
  std::filesystem::create_directories(g_base + "/in/.usr");
  const size_t before = mallinfo2().uordblks;
  g_map = std::make_unique<VelmoraArchReqsMap>();
  for (int i = 0; i < kFiles; ++i) {
    const std::string in = g_base + "/in/", usr = g_base + "/in/.usr/";
    VelmoraArchiveRequest r;
    r.setAll("TORV." + std::to_string(i), "VOL_1", in + name(i), in + name(i) + ".lab",
             usr + name(i) + ".lab.OK", usr + name(i) + ".lab.ERR");
    g_map->addEntry(r);
  }
  const size_t after = mallinfo2().uordblks;
  std::printf("request map: %d pending requests, %.0f bytes of heap per pending request\n", kFiles,
              static_cast<double>(after - before) / kFiles);
  for (int i = 0; i < kFiles; ++i) {
    const std::string ok = g_base + "/in/.usr/" + name(i) + ".lab.OK";
    std::ofstream(ok) << "archived TORV." << i << " on VOL_1 at 2026-11-23T14:00:00.000000\n";
    g_raw[ok] = *g_map->fileConcerned(ok);
  }
}

void statusOurs(benchutil::Pass& pass) {
  Velmora velmora("bench", "BENCH", g_base);
  pass.measure([&] {
    std::vector<VelmoraArchiveRequest> ok, err;
    velmora.checkArchStatus(false, *g_map, ok, err);
    if (ok.size() != static_cast<size_t>(kFiles) || !err.empty()) std::exit(1);
  });
}

void statusRaw(benchutil::Pass& pass) {
  const std::string dir = g_base + "/in/.usr";
  pass.measure([&] {
    std::vector<VelmoraArchiveRequest> ok;
    for (const std::filesystem::directory_entry& e : std::filesystem::directory_iterator(dir)) {
      const std::string& path = e.path().native();
      auto it = g_raw.find(path);
      if (it == g_raw.end()) continue;
      // Opened as any reader of a folder shared with another tool must: no
      // link followed, no wait on a FIFO, nothing but a regular file read.
      char buf[1024 + 1] = {};
      const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
      struct stat st;
      if (fd < 0) continue;
      if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && ::read(fd, buf, 1024) >= 0) {
        it->second.setStatus(buf);
        ok.push_back(it->second);
      }
      ::close(fd);
    }
    if (ok.size() != static_cast<size_t>(kFiles)) std::exit(1);
  });
}

}  // namespace

int main(int argc, char** argv) {
  // The status directory goes to tmpfs where there is one: 100,000 files on a
  // loaded disk take minutes to write and remove, and both sides read the same.
  g_base = benchutil::scratchDir(std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp", "velmora");
  if (g_base.empty()) return 1;
  // A production host masks DEBUG through ACE's process-wide priority mask.
  ACE_LOG_MSG->priority_mask(
      LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
      ACE_Log_Msg::PROCESS);
  makeRequests();

  benchmark::Initialize(&argc, argv);
  benchutil::Rounds rounds;
  rounds.side("BM_status_raw", statusRaw).side("BM_status_ours", statusOurs).run();
  benchmark::Shutdown();

  rounds.ratio("velmora_arch_status_100k_logoff", "BM_status_ours", "BM_status_raw", "1.25");
  g_map.reset();
  std::filesystem::remove_all(g_base);
  return 0;
}
