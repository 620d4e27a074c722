// Recordings as files of rows: korvo show and check, which need no layout for them.

#include "recordings.h"

namespace {

using korvotest::expectAll;
using korvotest::expectOut;
using korvotest::korvo;
using korvotest::Outcome;
using korvotest::portLayout;
using korvotest::portRecording;
using korvotest::Recording;
using korvotest::shell;
using korvotest::write;

class RecordingFile : public testing::Test {
 protected:
  RecordingFile() {
    shell("rm -f *.rec *.gz");
    write("ports.rec", portRecording().bytes);
  }
};

TEST_F(RecordingFile, IsShownWithTheLayoutsOfItsTables) {
  expectOut("show --oid 1001 --first 1 ports.rec",
            "net/port oid 1001, type 7, 47 bytes at byte 253\n"
            "  speed  uint64_t     1000\n"
            "  name   string_t     \"eth0\"\n"
            "  tags   string_t[]   [\"core\"]\n"
            "  net    IpGenPrefix  \"10.1.0.0/16\"\n");
  expectOut("show --json ports.rec",
            R"({"type":7,"oid":1001,"row":{"speed":1000,"name":"eth0","tags":["core"],)"
            R"("net":"10.1.0.0/16"}})"
            "\n"
            R"({"type":7,"oid":1002,"row":{"speed":1000,"name":"eth 1","tags":[],)"
            R"("net":"10.1.2.0/24"}})"
            "\n"
            R"({"type":7,"oid":1001,"row":{"speed":25000,"name":"eth0","tags":["core"],)"
            R"("net":"10.1.0.0/16"}})"
            "\n"
            R"({"type":2,"oid":5,"row":{"up":true,"peer":"10.1.0.9"}})"
            "\n");
  expectOut("show --json --row net/link - <ports.rec",
            R"({"type":2,"oid":5,"row":{"up":true,"peer":"10.1.0.9"}})"
            "\n");
  expectOut("show --json --columns up --row net/link ports.rec",
            R"({"type":2,"oid":5,"row":{"up":true}})"
            "\n");
#ifdef KORVO_WITH_ARCHIVE
  shell("gzip -k ports.rec");
  expectOut("show --json --oid 5 ports.rec.gz | cut -c1-18", "{\"type\":2,\"oid\":5,\n");
#endif
}

TEST_F(RecordingFile, IsChecked) {
  expectAll("check ports.rec", 0, "ports.rec: 4 good rows\n", "");
  expectAll("check --row net/port ports.rec", 0, "ports.rec: 3 good rows\n", "");
  Recording faulty;
  faulty.table(0, "net/port", portLayout)
      .row(0, 1, "{}")
      .record(4, 0, std::string("\x20\0\7\0\2\0\0\0", 8) + std::string(20, '\xFF'))
      .record(4, 0, std::string("\x1c\0\3\0\3\0\0\0", 8) + std::string(20, '\0'))
      .mark(0);
  write("faulty.rec", faulty.bytes);
  const Outcome result = korvo("check faulty.rec");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "");
  EXPECT_NE(result.out.find("row of 28 bytes, type 7, oid 2: "), std::string::npos) << result.out;
  EXPECT_NE(
      result.out.find("row of 28 bytes, type 3, oid 3: another row type than that of net/port\n"),
      std::string::npos)
      << result.out;
  EXPECT_TRUE(result.out.ends_with("faulty.rec: 1 good row, 2 faulty rows\n")) << result.out;
}

TEST_F(RecordingFile, LayoutsMayChangeInTheMiddleAndBelongToTheirFile) {
  Recording recording;
  recording.table(0, "net/port", portLayout)
      .row(0, 1, R"({"name":"eth0"})")
      .mark(0)
      .table(0, "net/port", "row 7 base 12 { mtu uint32_t @8 }")
      .row(0, 1, R"({"mtu":1500})")
      .mark(100);
  write("a.rec", recording.bytes);
  expectOut("show --json --columns mtu,name a.rec ports.rec",
            R"({"type":7,"oid":1,"row":{"name":"eth0"}})"
            "\n"
            R"({"type":7,"oid":1,"row":{"mtu":1500}})"
            "\n"
            R"({"type":7,"oid":1001,"row":{"name":"eth0"}})"
            "\n"
            R"({"type":7,"oid":1002,"row":{"name":"eth 1"}})"
            "\n"
            R"({"type":7,"oid":1001,"row":{"name":"eth0"}})"
            "\n"
            R"({"type":2,"oid":5,"row":{}})"
            "\n");
}

TEST_F(RecordingFile, TornEndIsTold) {
  const std::string whole = portRecording().bytes;
  write("torn.rec", whole.substr(0, whole.size() - 1));
  const std::string place = std::to_string(whole.size() - 61);
  expectAll("check torn.rec", 1,
            "torn.rec: byte " + place +
                ": ends in the middle of a batch; 60 bytes skipped, no row behind them\n"
                "torn.rec: 3 good rows, 60 bytes skipped\n",
            "");
  const Outcome shown = korvo("show --json torn.rec");
  EXPECT_EQ(shown.status, 1);
  EXPECT_EQ(std::count(shown.out.begin(), shown.out.end(), '\n'), 3);
  EXPECT_EQ(shown.err, "korvo: torn.rec: byte " + place +
                           ": ends in the middle of a batch; 60 bytes skipped, no row behind "
                           "them\n");
}

TEST_F(RecordingFile, MistakesAreTold) {
  const std::string see = " (see korvo show --help)\n";
  write("port.layout", portLayout);
  expectAll("show -l port.layout ports.rec", 64, "",
            "korvo: ports.rec: is a recording, whose tables have their layouts: korvo show and "
            "check read it without --layout, korvo replay prints it" +
                see);
  EXPECT_EQ(korvo("show -l port.layout --plain ports.rec").status, 1);  // bytes as any others
  expectAll("show port.layout", 64, "",
            "korvo: port.layout: is no recording: --layout is required" + see);
  expectAll("show --row net/prt ports.rec", 65, "",
            "korvo: ports.rec: no table has the name net/prt\n");
  expectAll("show --json --columns mtu --oid 5 ports.rec", 64,
            R"({"type":2,"oid":5,"row":{}})"
            "\n",
            "korvo: no row has a column mtu" + see);
  expectAll("show --oid 9 ports.rec", 1, "", "korvo: no row has the oid 9\n");
  write("bad.rec", Recording().table(0, "net/port", "row 7 {").mark(0).bytes);
  EXPECT_EQ(korvo("show bad.rec").status, 65);
  EXPECT_TRUE(korvo("show bad.rec").err.starts_with("korvo: bad.rec: byte 16: the layout: "))
      << korvo("show bad.rec").err;
  write("bad.rec",
        Recording().table(0, "t", portLayout).record(4, 3, std::string(8, '\1')).mark(0).bytes);
  EXPECT_EQ(korvo("show bad.rec").status, 65);
  EXPECT_TRUE(korvo("show bad.rec").err.ends_with(": no table has the number 3\n"));
}

// Whatever a byte of it becomes, it is shown, found faulty or refused.
TEST_F(RecordingFile, NoByteIsBelieved) {
  const std::string whole = portRecording().bytes;
  for (std::size_t at = 16; at < whole.size(); at += 13) {
    std::string bytes = whole;
    bytes[at] = static_cast<char>(bytes[at] ^ (at % 2 == 0 ? 0x80 : 0x01));
    write("bad.rec", bytes);
    const int status = korvo("show bad.rec").status;
    EXPECT_TRUE(status == 0 || status == 1 || status == 65) << at << ": " << status;
  }
}

}  // namespace
