// Demo section: the request-file interface. The external request-file tool is
// not part of this library, so the demo runs against the in-process stand-in
// of the test suite (tests/support/VelmoraTool.h), which answers label files
// and request files the way the tool does.
#include <dataAccess/velmora/Velmora.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "examples/demo.h"
#include "tests/support/VelmoraTool.h"

namespace {

int run(const std::string& work) {
  namespace fs = std::filesystem;
  const std::string base = work + "/velmora";
  fs::remove_all(base);
  testsupport::VelmoraTool tool(base);
  tool.runOnce();  // the stand-in makes its folders in/, in/.usr/, request/
  std::printf("   running against a stand-in for the request-file tool, in %s\n", base.c_str());

  Velmora velmora("demo-client", "DEMO", base);
  VelmoraArchReqsMap pendingArchive;
  for (const std::string name : {"night1.fits", "night2.fits", "night3.fits"}) {
    const std::string data = base + "/in/" + name;
    if (name != "night3.fits") std::ofstream(data) << "frame " << name << "\n";  // night3 is never written
    velmora.archive("SCIENCE", "3600", "TORV_" + name, data, "VOL_1", pendingArchive);
  }
  std::printf("   3 label files written, %d requests pending\n",
              pendingArchive.size() / VelmoraArchReqsMap::MAPPINGS_PER_REQ);
  tool.runOnce();
  std::vector<VelmoraArchiveRequest> ok, failed;
  velmora.checkArchStatus(true, pendingArchive, ok, failed);
  for (const auto* list : {&ok, &failed})
    for (const VelmoraArchiveRequest& r : *list) {
      std::printf("   %-6s %s: %s\n", list == &ok ? "OK" : "FAILED", r.getGlobalKey().c_str(),
                  r.getStatus().c_str());
      pendingArchive.removeEntry(r.getLabelFile());
    }
  velmora.removeArchStatusFiles(failed);
  std::printf("   %d requests still pending\n", pendingArchive.size() / VelmoraArchReqsMap::MAPPINGS_PER_REQ);

  std::vector<VelmoraFileRequest> wanted = {{"TORV_night1.fits", "n1.fits"}, {"TORV_unknown.fits", "u.fits"}};
  Velmora::PendingMap pending;
  std::string reqFile;
  velmora.request("demo", wanted, reqFile, pending);
  std::printf("   request file %s\n", fs::path(reqFile).filename().c_str());
  std::vector<VelmoraFileRequest> delivered, lost;
  bool done = false;
  for (int poll = 1; !done && poll <= 5; ++poll) {
    tool.runOnce();
    delivered.clear();  // every poll lists all deliveries; a failure only once, by the poll that reads it
    velmora.checkReqStatus("demo", reqFile, pending, delivered, lost, done);
    std::printf("   poll %d: %zu delivered, %zu failed, done: %s\n", poll, delivered.size(), lost.size(),
                done ? "yes" : "no");
  }
  for (VelmoraFileRequest& r : delivered) {
    std::ifstream in(base + "/out/demo/" + r.getLinkName());
    std::string firstLine;
    std::getline(in, firstLine);
    std::printf("   delivered %s as %s: \"%s\"\n", r.getGlobalKey().c_str(), r.getLinkName().c_str(),
                firstLine.c_str());
    velmora.removeFileRequest("demo", r, pending);
  }
  for (const VelmoraFileRequest& r : lost)
    std::printf("   failed    %s: %s\n", r.getGlobalKey().c_str(), r.getStatus().c_str());
  return ok.size() == 2 && failed.size() == 1 && done && delivered.size() == 1 && lost.size() == 1 ? 0 : 1;
}

}  // namespace

DEMO_SECTION(50, "Request-file interface: archiving by label files, retrieval by request files", run);
