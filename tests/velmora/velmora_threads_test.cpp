#include <dataAccess/dataAccess.h>
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "tests/support/TempDir.h"
#include "tests/support/VelmoraTool.h"

// One thread submits archive requests while another runs the stand-in tool,
// polls the status files and removes finished requests; both draw indices.
TEST(VelmoraThreads, SubmitterAndPollerShareMapAndIndex) {
  testsupport::TempDir dir;
  testsupport::VelmoraTool tool(dir.path());
  tool.runOnce();
  Velmora v;
  v.setPars("c", "s", dir.path());
  VelmoraArchReqsMap map;
  const int n = 150;
  std::thread submitter([&] {
    for (int i = 0; i < n; ++i) {
      v.archive("C", "1", "K_" + std::to_string(i), dir.write("in/f" + std::to_string(i), "x"), "V", map);
      v.getUniqueIndex();
    }
  });
  unsigned polls = 0;
  for (size_t finished = 0; finished < static_cast<size_t>(n); ++polls) {
    std::vector<VelmoraArchiveRequest> ok, err;
    tool.runOnce();
    v.checkArchStatus(false, map, ok, err);
    ASSERT_TRUE(err.empty());
    for (const auto& r : ok) map.removeEntry(r.getGlobalKey());
    v.removeArchStatusFiles(ok);
    finished += ok.size();
    v.getUniqueIndex();
  }
  submitter.join();
  EXPECT_EQ(map.size(), 0);
  EXPECT_EQ(v.getUniqueIndex(), n + polls + 1);
}
