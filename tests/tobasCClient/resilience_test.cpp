// Transfers over a bad network: retries by policy, retrievals that go on where they broke off, checksums.
#include <array>
#include <chrono>
#include <filesystem>

#include "tests/tobasCClient/TobasTest.h"
#include "tobasCClient/tobasInternal.h"

namespace {

const std::string kBody = [] {
  std::string s(1000, '\0');
  for (size_t i = 0; i < s.size(); ++i) s[i] = static_cast<char>(i * 7 + 1);
  return s;
}();
// Checksums of kBody (zlib's crc32, md5sum, sha256sum).
const char* const kCrc = "-1979063236";
const char* const kMd5 = "7874D3C13D4ED33F057DEF947E0621EF";
const char* const kSha = "095ecb62e30793ab4b954cd6a0586d0cc91f7ea5b1332694d8da780e98676d78";

std::string partial(long from, long total = 1000) {
  return "HTTP/1.0 206 Partial Content\r\nContent-Range: bytes " + std::to_string(from) + "-" +
         std::to_string(total - 1) + "/" + std::to_string(total) +
         "\r\nContent-Length: " + std::to_string(1000 - from) + "\r\n\r\n" + kBody.substr(from);
}
// The whole file, cut after `bodyBytes` of its body.
Reply cutAt(size_t bodyBytes) {
  const std::string r = fileReply("f", kBody);
  return {r, r.size() - kBody.size() + bodyBytes};
}
std::string range(const std::string& request) {
  const size_t at = request.find("Range: bytes=");
  return at == std::string::npos ? "" : request.substr(at + 13, request.find('-', at + 13) - at - 13);
}

struct Resilience : ::testing::Test {
  ArchiveServer srv;
  tobasSTATUS st{};
  TempDir dir;
  tobasBIG_BUF final;
  void TearDown() override {
    tobasFreeStatus(&st);
    tobasSetRetryPolicy(1, 0, 0, 0);
  }
  int retrieve(const std::vector<Reply>& replies, const tobasRETRIEVE_OPTS& opts, const std::string& target) {
    for (const Reply& r : replies) srv.push(r);
    tobasFreeStatus(&st);
    return tobasRetrieve2FileOpts("127.0.0.1", srv.port(), 5, "f", -1, "", "", target.c_str(), final, &opts,
                                  &st);
  }
  std::vector<std::string> ranges(size_t from = 0) {  // of the requests from the from-th on
    std::vector<std::string> r;
    const std::vector<std::string> sent = srv.requests();
    for (size_t i = from; i < sent.size(); ++i) r.push_back(range(sent[i]));
    return r;
  }
};

TEST_F(Resilience, RetriesGoOnWhereTheTransferBrokeOffAndCheckTheWholeFile) {
  ASSERT_EQ(0, tobasSetRetryPolicy(3, 0, 0, 0));
  const std::string zeros(64, '0');
  const char* const kZeros = zeros.c_str();
  const std::string unavailable = httpReply(503, "", "Retry-After: 1\r\n"), gone = httpReply(404, "");
  struct Case {
    std::vector<Reply> replies;
    tobasRETRIEVE_OPTS opts;
    int stat;
    std::vector<std::string> ranges;  // of the requests sent, "" for none
  } cases[] = {
      {{cutAt(100), {partial(100)}}, {0, "crc32", kCrc}, 0, {"", "100"}},
      {{cutAt(100), {fileReply("f", kBody)}}, {0, "MD5", kMd5}, 0, {"", "100"}},  // starts over
      {{cutAt(100), {partial(50)}, {fileReply("f", kBody)}}, {0, "sha256", kSha}, 0, {"", "100", ""}},
      {{cutAt(100), {partial(100, 2000)}, {fileReply("f", kBody)}}, {}, 0, {"", "100", ""}},  // another size
      {{{unavailable}, {fileReply("f", kBody)}}, {0, "crc32", "0x8a09e43c"}, 0, {"", ""}},
      {{{unavailable}, {unavailable}, {unavailable}}, {}, tobasERR_INV_REPLY, {"", "", ""}},
      {{{gone}}, {}, tobasERR_INV_REPLY, {""}},  // not worth another attempt
      {{{fileReply("f", kBody)}}, {0, "sha256", kZeros}, tobasERR_CHECKSUM, {""}},
  };
  // libcrypto sets itself up once a process, at the first MD5 or SHA-256; that is no growth.
  EXPECT_EQ(0, retrieve({{fileReply("f", kBody)}}, {0, "md5", kMd5}, dir.file("out")));
  const long fds = testsupport::openFdCount(), threads = testsupport::threadCount();
  const size_t inUse = heapInUse();
  for (Case& c : cases) {
    const auto start = std::chrono::steady_clock::now();
    const size_t before = srv.requests().size();
    EXPECT_EQ(c.stat, retrieve(c.replies, c.opts, dir.file("out"))) << before;
    EXPECT_EQ(c.ranges, ranges(before)) << before;
    EXPECT_TRUE(readFile(dir.file("out")) == (c.stat == 0 ? kBody : "")) << before;
    EXPECT_EQ(c.stat == 0 ? std::vector<std::string>{"out"} : std::vector<std::string>{},
              listDir(dir.path()));
    if (c.replies[0].bytes == unavailable) {  // Retry-After is the least wait
      EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(c.stat == 0 ? 1 : 2));
    }
    std::filesystem::remove(dir.file("out"));
  }
  EXPECT_EQ(fds, testsupport::openFdCount());      // no connection of an attempt left open
  EXPECT_EQ(threads, testsupport::threadCount());  // nor hashing thread
  EXPECT_NO_GROWTH(inUse, 65536);                  // nor memory (a retrieval takes 130 KiB)
  // 4.5 MiB of kBody again and again: pieces are hashed on the checksum's thread while the next ones
  // fill, and the buffer's pieces come round again.
  std::string big;
  while (big.size() < (9 << 19)) big += kBody;
  EXPECT_EQ(0, retrieve({{fileReply("f", big.substr(0, 9 << 19))}},
                        {0, "md5", "2ac01b5b10dfd94f0f2b475854ad0b88"}, dir.file("b")));
  for (const std::string& line :
       {"Retrieval starts again from the first byte of " + dir.file("out"),
        "[ERROR] Checksum mismatch of the retrieved file: expected " + zeros + ", got " + kSha,
        "[WARNING] Attempt 1 of 3 failed (status -103, reply 503); next attempt in 1000 ms"s,
        "[ERROR] Connection closed with 900 bytes of the body missing"s,
        "[ERROR] Reply holds another part of the file than the rest from byte 100"s})
    EXPECT_HAS(logText(), line);
}

TEST_F(Resilience, ResumingKeepsThePartAndGoesOnFromIt) {
  const tobasRETRIEVE_OPTS resume{1, "sha256", kSha};
  for (const std::string& target : {dir.file("named"), dir.path()}) {
    const std::string finalName = target == dir.path() ? dir.file("f") : target;
    EXPECT_EQ(tobasERR_RD_DATA, retrieve({cutAt(300)}, resume, target));
    EXPECT_TRUE(readFile(finalName + ".part") == kBody.substr(0, 300));
    // A folder learns the file's name from the reply, then asks again for the rest.
    std::vector<Reply> replies{{partial(300)}};
    if (target == dir.path()) replies.insert(replies.begin(), {fileReply("f", kBody)});
    EXPECT_EQ(0, retrieve(replies, resume, target));
    EXPECT_TRUE(readFile(finalName) == kBody);
    EXPECT_FALSE(std::filesystem::exists(finalName + ".part"));
    EXPECT_EQ("300", range(srv.requests().back()));
    EXPECT_HAS(logText(), "Partial file kept: " + finalName + ".part (300 bytes)");
  }
  // A part that is a link, or a file of two names, is not written through; a wrong part is not kept.
  std::filesystem::create_symlink(dir.file("elsewhere"), dir.file("link.part"));
  std::filesystem::create_hard_link(dir.write("other", "x"), dir.file("twice.part"));
  const long fds = testsupport::openFdCount();
  for (const char* name : {"link", "twice"})
    EXPECT_EQ(tobasERR_INV_TARG_FILE, retrieve({}, resume, dir.file(name))) << name;
  EXPECT_EQ(fds, testsupport::openFdCount());
  EXPECT_FALSE(std::filesystem::exists(dir.file("elsewhere")));
  dir.write("bad.part", "not the file's first bytes");
  EXPECT_EQ(tobasERR_CHECKSUM, retrieve({{partial(26)}}, resume, dir.file("bad")));
  EXPECT_FALSE(std::filesystem::exists(dir.file("bad.part")));
}

TEST_F(Resilience, OnlyStatusAndRetrievalAreRetried) {
  ASSERT_EQ(0, tobasSetRetryPolicy(2, 0, 0, 0));
  srv.push({httpReply(503, "")});
  srv.push({kOk});
  EXPECT_EQ(0, tobasStatus("127.0.0.1", srv.port(), 5, &st));
  EXPECT_STREQ("SUCCESS", st.status);
  srv.push({httpReply(503, "")});
  tobasFreeStatus(&st);
  EXPECT_EQ(0, tobasArchiveFromMem("127.0.0.1", srv.port(), 5, "f", "data", 4, "", 0, 1, &st));
  EXPECT_EQ(3u, srv.requests().size());
  // A deadline before the server's Retry-After: no retry.
  ASSERT_EQ(0, tobasSetRetryPolicy(5, 0, 0, 500));
  srv.push({httpReply(503, "", "Retry-After: 1\r\n")});
  tobasFreeStatus(&st);
  tobasStatus("127.0.0.1", srv.port(), 5, &st);
  EXPECT_EQ(4u, srv.requests().size());
}

TEST(ResilienceSettings, RangesAndRetryAfterAsServersSendThem) {
  long from = 0, last = 0, total = 0;
  for (const char* bad : {"bytes 5-4/10", "bytes 0-10/10", "bytes -1-3/10", "bytes 1-2/3x", "bytes */10", ""})
    EXPECT_EQ(tobasERR_INV_REPLY, _tobasParseContentRange(bad, &from, &last, &total)) << bad;
  EXPECT_EQ(0, _tobasParseContentRange("bytes 0-9/10", &from, &last, &total));
  EXPECT_TRUE(from == 0 && last == 9 && total == 10);
  for (const auto& [text, ms] :
       std::vector<std::pair<const char*, long>>{{"2", 2000},
                                                 {"0", 0},
                                                 {"-3", 0},
                                                 {"1.5", 0},
                                                 {"Wed, 21 Oct 2026 07:28:00 GMT", 0},
                                                 {"999999999", 86400000}})
    EXPECT_EQ(ms, _tobasRetryAfterMs(text)) << text;
}

TEST(ResilienceSettings, BadPoliciesAndChecksumsAreRefusedBeforeAnyRequest) {
  for (const auto& [a, f, m, d] : {std::array{0, 0, 0, 0}, {2, -1, 0, 0}, {2, 10, 5, 0}, {2, 0, 0, -1}})
    EXPECT_EQ(tobasERR_INV_PARS, tobasSetRetryPolicy(a, f, m, d));
  int attempts = 0;
  tobasGetRetryPolicy(&attempts, nullptr, nullptr, nullptr);
  EXPECT_EQ(1, attempts);
  EXPECT_TRUE(tobasChecksumMethodKnown("SHA256") && !tobasChecksumMethodKnown("sha1"));
  const std::pair<const char*, const char*> bad[] = {{"sha1", "00"},
                                                     {"md5", "5a6a"},
                                                     {"md5", "gggggggggggggggggggggggggggggggg"},
                                                     {"md5", "7874d3c1 3d4ed33f057def947e0621e"},
                                                     {"crc32", "12x"},
                                                     {"crc32", ""},
                                                     {"crc32", "4294967296"},
                                                     {"crc32", "-2147483649"},
                                                     {"crc32", "0x123456789"},
                                                     {"crc32", "0x"},
                                                     {"sha256", nullptr}};
  tobasSTATUS st{};
  const size_t inUse = heapInUse();
  for (const auto& [method, value] : bad) {
    const tobasRETRIEVE_OPTS opts{0, method, value};
    EXPECT_EQ(tobasERR_INV_PARS, tobasRetrieve2FileOpts("127.0.0.1", fullBacklogPort(), 5, "f", -1, "", "",
                                                        "/nowhere", nullptr, &opts, &st))
        << method << " " << (value ? value : "null");
    tobasFreeStatus(&st);
  }
  EXPECT_NO_GROWTH(inUse, 65536);  // each refusal frees its 130 KiB
  EXPECT_HAS(logText(), "[ERROR] Unknown checksum method: sha1");
}

}  // namespace
