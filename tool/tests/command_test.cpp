// Every command, with good input and with bad.

#include "support.h"

#include <Korvo/layoutText.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace {

using korvotest::contentOf;
using korvotest::expectAll;
using korvotest::expectOut;
using korvotest::korvo;
using korvotest::Outcome;
using korvotest::shell;
using korvotest::write;

constexpr const char* definition = R"(namespace net
# A link.
row Link 2 {
  up bool
  peer IpGenAddr
}
row Port 7 {
  speed uint32_t
  name string_t
  tags string_t[]
  flags bool[]
  links Link[]
  net IpGenPrefix
}
)";

constexpr const char* rows =
    R"({"type":7,"oid":1,"row":{"speed":5,"name":"eth0","tags":["a","bc"],"flags":[true],)"
    R"("links":[{"up":true,"peer":"10.0.0.1"}],"net":"10.0.0.0/8"}})"
    "\n"
    R"({"type":2,"oid":9,"row":{"up":false,"peer":"1.2.3.4"}})"
    "\n"
    R"({"type":7,"oid":2,"row":{"speed":6,"name":"","tags":[],"flags":[],"links":[],"net":null}})"
    "\n";

class Tool : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    write("port.korvo", definition);
    write("link.korvo", "row Link 2 {\n  up bool\n}\n");
    write("rows.json", rows);
    const Outcome made = korvo("convert -l port.korvo --from json rows.json -o good.rows");
    ASSERT_EQ(made.status, 0) << made.err;
    ASSERT_EQ(contentOf("good.rows").size(), firstLength + secondLength + thirdLength);
  }

  static constexpr std::size_t firstLength = 80;
  static constexpr std::size_t secondLength = 17;
  static constexpr std::size_t thirdLength = 32;

  /// Makes a file of the good rows with one byte changed.
  static void damage(const std::string& path, std::size_t offset, char byte) {
    std::string content = contentOf("good.rows");
    content[offset] = byte;
    write(path, content);
  }
};

TEST_F(Tool, ChecksGoodRows) {
  expectOut("check -l port.korvo good.rows", "good.rows: 3 good rows\n");
  expectOut("check -l port.korvo --quiet good.rows", "");
  expectOut("check -l port.korvo - <good.rows", "standard input: 3 good rows\n");
  expectOut("check -l port.korvo good.rows good.rows",
            "good.rows: 3 good rows\ngood.rows: 3 good rows\n");
  expectOut("check -l port.korvo --json good.rows",
            R"({"file":"good.rows","kind":"summary","good":3,"faulty":0,"skipped":0})"
            "\n");
  expectOut("check -l port.korvo /dev/null", "/dev/null: 0 good rows\n");
  // Rows of other types are not asked for.
  expectOut("check -l port.korvo --row Port good.rows", "good.rows: 2 good rows\n");
}

TEST_F(Tool, ChecksFaultyRows) {
  damage("faulty.rows", 12, 8);
  expectAll(
      "check -l port.korvo faulty.rows", 1,
      "faulty.rows: byte 0: row of 80 bytes, type 7, oid 1: a value lies in the header or the "
      "fixed area (name, at byte 12)\n"
      "faulty.rows: 2 good rows, 1 faulty row\n",
      "");
  expectAll("check -l port.korvo -q faulty.rows", 1, "", "");
  expectAll(
      "check -l port.korvo --json faulty.rows", 1,
      R"({"file":"faulty.rows","kind":"faulty","offset":0,"length":80,"type":7,"oid":1,"at":12,)"
      R"x("reason":"a value lies in the header or the fixed area (name, at byte 12)"})x"
      "\n"
      R"({"file":"faulty.rows","kind":"summary","good":2,"faulty":1,"skipped":0})"
      "\n",
      "");
  write("hostbits.json", R"({"type":7,"row":{"net":"10.0.0.1/8"}})");
  ASSERT_EQ(korvo("convert -l port.korvo --from json hostbits.json -o hostbits.rows").status, 0);
  EXPECT_EQ(korvo("check -l port.korvo hostbits.rows").status, 0);
  expectAll(
      "check -l port.korvo --no-host-bits hostbits.rows", 1,
      "hostbits.rows: byte 0: row of 37 bytes, type 7, oid 0: a prefix has host bits set (net, at "
      "byte 32)\nhostbits.rows: 0 good rows, 1 faulty row\n",
      "");
}

TEST_F(Tool, TellsRowsOfTypesThatItDoesNotKnow) {
  write("port.layout", korvo("layout print --row Port port.korvo").out);
  expectAll("check -l port.layout good.rows", 1,
            "good.rows: byte 80: row of 17 bytes, type 2, oid 9: no layout is known for this row "
            "type\ngood.rows: 2 good rows, 1 faulty row\n",
            "");
}

TEST_F(Tool, FindsRowsBehindDamage) {
  // A length that is too short, too long, and beyond the file.
  for (const char length : {'\x03', '\x10', '\xFF'}) {
    damage("damaged.rows", 0, length);
    const Outcome result = korvo("show -l port.korvo --json damaged.rows");
    EXPECT_EQ(result.status, 1);
    // The second is of a type that is nested in the first.
    EXPECT_EQ(result.out,
              std::string(rows).substr(std::string(rows).find("{\"type\":7,\"oid\":2")));
    EXPECT_NE(result.err.find("97 bytes skipped, rows go on at byte 97\n"), std::string::npos)
        << result.err;
  }
  // One byte more may be a gap; then the next row is no row.
  damage("damaged.rows", 0, firstLength + 1);
  EXPECT_EQ(korvo("check -l port.korvo damaged.rows").out,
            "damaged.rows: byte 81: a row of 512 bytes begins, of which 48 are there; 16 bytes "
            "skipped, rows go on at byte 97\ndamaged.rows: 2 good rows, 16 bytes skipped\n");
  damage("damaged.rows", firstLength, 3);
  expectAll("check -l port.korvo damaged.rows", 1,
            "damaged.rows: byte 80: a row of 3 bytes has no room for its header; 17 bytes skipped, "
            "rows go on at byte 97\ndamaged.rows: 2 good rows, 17 bytes skipped\n",
            "");
  // Two neighbours: the first one's length is believed as nothing begins before its end.
  std::string both = contentOf("good.rows");
  both[12] = 8;
  both[firstLength] = 3;
  write("both.rows", both);
  expectAll("check -l port.korvo both.rows", 1,
            "both.rows: byte 0: row of 80 bytes, type 7, oid 1: a value lies in the header or the "
            "fixed area (name, at byte 12)\n"
            "both.rows: byte 80: a row of 3 bytes has no room for its header; 17 bytes skipped, "
            "rows go on at byte 97\n"
            "both.rows: 1 good row, 1 faulty row, 17 bytes skipped\n",
            "");
  // Bytes of something else between rows.
  write("foreign.rows", contentOf("good.rows") + std::string(1000, 'x') + contentOf("good.rows"));
  expectAll(
      "check -l port.korvo foreign.rows", 1,
      "foreign.rows: byte 129: a row of 30840 bytes begins, of which 1129 are there; 1000 "
      "bytes skipped, rows go on at byte 1129\nforeign.rows: 6 good rows, 1000 bytes skipped\n",
      "");
}

TEST_F(Tool, TellsTornFiles) {
  const std::string whole = contentOf("good.rows");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    write("torn.rows", std::string_view(whole).substr(0, length));
    const Outcome result = korvo("check -l port.korvo torn.rows");
    const bool isWhole =
        length == 0 || length == firstLength || length == firstLength + secondLength;
    EXPECT_EQ(result.status, isWhole ? 0 : 1) << length;
    EXPECT_EQ(result.out.find("no row behind them") == std::string::npos, isWhole) << result.out;
  }
}

TEST_F(Tool, ShowsRows) {
  expectOut("show -l port.korvo --first 2 good.rows",
            "Port oid 1, type 7, 80 bytes at byte 0\n"
            "  speed  uint32_t     5\n"
            "  name   string_t     \"eth0\"\n"
            "  tags   string_t[]   [\"a\",\"bc\"]\n"
            "  flags  bool[]       [true]\n"
            "  links  row[]        [{\"up\":true,\"peer\":\"10.0.0.1\"}]\n"
            "  net    IpGenPrefix  \"10.0.0.0/8\"\n"
            "\n"
            "Link oid 9, type 2, 17 bytes at byte 80\n"
            "  up    bool       false\n"
            "  peer  IpGenAddr  \"1.2.3.4\"\n");
  expectOut("show -l port.korvo --json good.rows", rows);
  expectOut("show -l port.korvo --oid 2 --columns name,speed good.rows",
            "Port oid 2, type 7, 32 bytes at byte 97\n"
            "  speed  uint32_t  6\n"
            "  name   string_t  \"\"\n");
  expectOut("show -l port.korvo --oid 2 --columns name,speed --json good.rows",
            "{\"type\":7,\"oid\":2,\"row\":{\"name\":\"\",\"speed\":6}}\n");
  expectAll("show -l port.korvo --oid 3 good.rows", 1, "", "korvo: no row has the oid 3\n");
  expectAll("show -l port.korvo --columns mtu good.rows", 64, "",
            "korvo: no row has a column mtu (see korvo show --help)\n");
}

TEST_F(Tool, PaintsOnATerminalOnly) {
  const std::string escape = "\x1b[";
  EXPECT_EQ(korvo("show -l port.korvo good.rows").out.find(escape), std::string::npos);
  EXPECT_NE(korvo("show -l port.korvo --color always good.rows").out.find(escape),
            std::string::npos);
  // What a text says is no command to the terminal.
  write("escape.json", R"({"type":7,"row":{"name":"\u001b[31m\u009b31m"}})");
  const Outcome shown = shell(
      "korvo convert -l port.korvo --from json escape.json -o escape.rows && "
      "korvo show -l port.korvo --columns name escape.rows");
  EXPECT_EQ(
      shown.out,
      "Port oid 0, type 7, 42 bytes at byte 0\n  name  string_t  \"\\u001b[31m\\u009b31m\"\n");
}

TEST_F(Tool, NothingThatIsNamedIsACommandToTheTerminal) {
  // In names of columns, of files, in texts, on either stream.
  write("escape.layout", "row 7 base 12 { \"a\\x1b[31m\\x0a\" string_t @8 }");
  write("twice.layout", "row 7 base 16 { \"\x7f\" bool @8 \"\x7f\" bool @9 }");
  write("bytes.layout", "row 7 base 16 { \"\xC2\x9B\" bool @8 \"\xC2\x9B\" bool @9 }");
  write("name\x1b[31m\xff\n.rows", std::string("\x0d\0\x07\0\x01\0\0\0\x0c\0\x09\0\0", 13));
  write("escape.json", R"({"row":{"a\u001b[31m\n":"x","b":1}})");
  for (const char* const arguments :
       {"check -l escape.layout name*", "show -l escape.layout name*",
        "annotate -l escape.layout name*", "stat -l escape.layout name*",
        "diff -l escape.layout name* name*", "check -l twice.layout name*",
        "check -l bytes.layout name*", "check -l name* name*", "layout print twice.layout",
        "layout diff escape.layout port.korvo --row Port",
        "convert -l escape.layout --from json escape.json", "show -l $'\\e[31m\\x9b' name*",
        "check -l port.korvo --row $'\\e[31m\\n' good.rows",
        "show -l port.korvo --columns $'\\e' good.rows", "query $'\\e[31m\\x9b into \\e'",
        "address $'\\e[31m'", "prefix parse $'\\e/8'", "$'\\e'"}) {
    const Outcome result = korvo(arguments);
    for (const std::string& text : {result.out, result.err}) {
      EXPECT_EQ(text.find_first_of("\x1b\x7f\xff\r"), std::string::npos) << arguments << text;
      EXPECT_EQ(text.find('\x9b'), std::string::npos) << arguments << text;
    }
    // Each line is one that the program began.
    for (std::size_t at = 0; at < result.err.size(); at = result.err.find('\n', at) + 1) {
      EXPECT_EQ(result.err.substr(at, 7), "korvo: ") << arguments << result.err;
    }
  }
}

TEST_F(Tool, AnnotatesRows) {
  expectOut("annotate -l port.korvo --first 1 good.rows",
            "Port at byte 0, 80 bytes\n"
            "      0  50 00                    row length: 80\n"
            "      2  07 00                    row type: 7\n"
            "      4  01 00 00 00              oid: 1\n"
            "      8  05 00 00 00              speed uint32_t = 5\n"
            "     12  20 00 04 00              slot of name string_t: 4 bytes at 32\n"
            "     16  24 00 0d 80              slot of tags string_t[]: 13 bytes at 36\n"
            "     20  31 00 03 80              slot of flags bool[]: 3 bytes at 49\n"
            "     24  34 00 17 80              slot of links row[]: 23 bytes at 52\n"
            "     28  4b 00 05 00              slot of net IpGenPrefix: 5 bytes at 75\n"
            "     32  65 74 68 30              name = \"eth0\"\n"
            "     36  02 10                    tags: array of 2 elements\n"
            "     38  0a 00 01 00              slot of tags[0]: 1 byte at 10 of the array\n"
            "     42  0b 00 02 00              slot of tags[1]: 2 bytes at 11 of the array\n"
            "     46  61                       tags[0] = \"a\"\n"
            "     47  62 63                    tags[1] = \"bc\"\n"
            "     49  01 00                    flags: array of 1 element\n"
            "     51  01                       flags: elements of fixed width\n"
            "     52  01 10                    links: array of 1 element\n"
            "     54  06 00 11 00              slot of links[0]: 17 bytes at 6 of the array\n"
            "     58  11 00                    row length of links[0]: 17\n"
            "     60  02 00                    row type of links[0]: 2\n"
            "     62  00 00 00 00              oid of links[0]: 0\n"
            "     66  01                       links[0].up bool = true\n"
            "     67  0d 00 04 00              slot of links[0].peer IpGenAddr: 4 bytes at 13\n"
            "     71  0a 00 00 01              links[0].peer = 10.0.0.1\n"
            "     75  08 0a 00 00 00           net = 10.0.0.0/8\n");
}

TEST_F(Tool, AnnotatesGapsAndOverlaps) {
  // The third row's name in the first one's place of it, with a gap behind.
  damage("gap.rows", 14, 2);
  const std::string gap = korvo("annotate -l port.korvo --oid 1 gap.rows").out;
  EXPECT_NE(gap.find("\n     32  65 74                    name = \"et\"\n"
                     "     34  68 30                    gap\n"),
            std::string::npos)
      << gap;
  damage("overlap.rows", 14, 8);
  const Outcome overlap = korvo("annotate -l port.korvo --oid 1 overlap.rows");
  EXPECT_EQ(overlap.status, 1);
  EXPECT_NE(overlap.out.find("\n  fault: two values share a byte (tags, at byte 16)\n"),
            std::string::npos)
      << overlap.out;
  EXPECT_NE(overlap.out.find("\n     36  02 10                    overlap of name and tags\n"),
            std::string::npos)
      << overlap.out;
  damage("beyond.rows", 31, 0x70);
  const Outcome beyond = korvo("annotate -l port.korvo --oid 1 beyond.rows");
  EXPECT_NE(beyond.out.find("slot of net IpGenPrefix: 28677 bytes at 75, beyond the row's end\n"),
            std::string::npos)
      << beyond.out;
  const std::string json = korvo("annotate -l port.korvo --oid 1 --json overlap.rows").out;
  EXPECT_NE(json.find(R"({"at":36,"length":2,"kind":"overlap","text":"overlap of name and tags"})"),
            std::string::npos)
      << json;
}

TEST_F(Tool, AnnotatesAnyBytes) {
  expectAll("annotate --at 80 good.rows", 0,
            "row at byte 80, 17 bytes\n"
            "      0  11 00                    row length: 17\n"
            "      2  02 00                    row type: 2\n"
            "      4  09 00 00 00              oid: 9\n"
            "      8  00 0d 00 04 00 01 02 03  no layout tells what this is\n"
            "     16  04\n",
            "");
  expectAll("annotate --at 126 good.rows", 0,
            "row at byte 126, 3 bytes\n"
            "      0  00 00                    row length: 0, of 3\n"
            "      2  00                       row type, cut off\n",
            "");
  expectAll("annotate --at 129 good.rows", 65, "", "korvo: good.rows: no byte 129\n");
  // Every place, every layout: it says something and reads nothing that is not there.
  for (std::size_t at = 0; at < firstLength; ++at) {
    const Outcome result =
        korvo("annotate -l port.korvo --at " + std::to_string(at) + " good.rows");
    EXPECT_TRUE(result.status == 0 || result.status == 1) << at;
    EXPECT_TRUE(result.out.find("row length") != std::string::npos) << at;
  }
}

TEST_F(Tool, AnnotatesEveryByteOfSpoiltRows) {
  for (std::size_t offset = 0; offset < firstLength; ++offset) {
    for (const char byte : {'\x00', '\x21', '\xFF'}) {
      std::string row = contentOf("good.rows").substr(0, firstLength);
      row[offset] = byte;
      write("spoilt.rows", row);
      const Outcome result = korvo("annotate -l port.korvo --at 0 --json spoilt.rows");
      ASSERT_TRUE(result.status == 0 || result.status == 1) << offset;
      // The parts are one behind the other.
      std::size_t end = 0;
      std::size_t at = 0;
      while ((at = result.out.find("{\"at\":", at)) != std::string::npos) {
        at += 6;
        ASSERT_EQ(std::stoul(result.out.substr(at)), end) << result.out;
        end += std::stoul(result.out.substr(result.out.find("\"length\":", at) + 9));
      }
      ASSERT_EQ(end, std::stoul(result.out.substr(result.out.find("\"length\":") + 9)));
    }
  }
}

TEST_F(Tool, AnnotatesArraysWhoseElementsLieOnOnePlace) {
  // Four thousand elements, each all of the array.
  constexpr unsigned int count = 4000;
  const auto put = [](std::string& to, unsigned int number) {
    to += static_cast<char>(number & 0xFF);
    to += static_cast<char>(number >> 8);
  };
  std::string array;
  put(array, count | 0x1000);
  for (unsigned int i = 0; i < count; ++i) {
    put(array, 0);
    put(array, 16000);
  }
  std::string row;
  put(row, static_cast<unsigned int>(12 + array.size()));
  row += std::string("\x07\0\x01\0\0\0", 6);
  put(row, 12);
  put(row, static_cast<unsigned int>(0x8000 | array.size()));
  row += array;
  write("array.layout", "row 7 base 12 { tags string_t[] @8 }");
  write("array.rows", row);
  const Outcome result = korvo("annotate -l array.layout array.rows");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("\n  fault: an element lies outside its array or over another"),
            std::string::npos);
  EXPECT_NE(result.out.find("overlap of tags"), std::string::npos);
}

TEST_F(Tool, ComparesRows) {
  expectOut("diff -l port.korvo good.rows good.rows", "3 same, 0 changed, 0 removed, 0 added\n");
  write("other.json", R"({"type":7,"oid":2,"row":{"speed":7,"tags":["\u0001"]}})"
                      "\n"
                      R"({"type":7,"oid":3,"row":{}})"
                      "\n"
                      R"({"type":2,"oid":9,"row":{"up":false,"peer":"1.2.3.4"}})"
                      "\n");
  ASSERT_EQ(korvo("convert -l port.korvo --from json other.json -o other.rows").status, 0);
  expectAll("diff -l port.korvo good.rows other.rows", 1,
            "~ Port oid 2\n"
            "    speed: 6 -> 7\n"
            "    tags: [] -> [\"\\u0001\"]\n"
            "- Port oid 1\n"
            "+ Port oid 3\n"
            "1 same, 1 changed, 1 removed, 1 added\n",
            "");
  expectAll("diff -l port.korvo --json good.rows other.rows", 1,
            R"({"change":"changed","type":7,"oid":2,"columns":[{"name":"speed","old":6,"new":7},)"
            R"({"name":"tags","old":[],"new":["\u0001"]}]})"
            "\n"
            R"({"change":"removed","type":7,"oid":1})"
            "\n"
            R"({"change":"added","type":7,"oid":3})"
            "\n"
            R"({"same":1,"changed":1,"removed":1,"added":1})"
            "\n",
            "");
  expectAll("diff -l port.korvo -q good.rows other.rows", 1, "", "");
  expectAll("diff -l port.korvo good.rows", 64, "",
            "korvo: FILE: At least 2 required but received 1 (see korvo diff --help)\n");
}

TEST_F(Tool, ComparesValuesAndNotTheirPlaces) {
  // The same values with a gap, and with bytes that JSON shows alike.
  std::string moved = contentOf("good.rows").substr(firstLength, secondLength);
  moved[0] = secondLength + 3;
  moved[9] = 13 + 3;
  moved.insert(13, "\xFF\xFF\xFF");
  write("moved.rows", moved);
  write("link.rows", contentOf("good.rows").substr(firstLength, secondLength));
  expectOut("diff -l port.korvo link.rows moved.rows", "1 same, 0 changed, 0 removed, 0 added\n");
  const std::string name = contentOf("good.rows").substr(0, firstLength);
  std::string one = name;
  std::string two = name;
  one[32] = '\xFE';
  two[32] = '\xFF';
  write("one.rows", one);
  write("two.rows", two);
  EXPECT_EQ(korvo("diff -l port.korvo one.rows two.rows").status, 1);
}

TEST_F(Tool, ComparesInOrderAndAcrossLayouts) {
  write("new.layout", "row 2 base 20 { peer IpGenAddr @8 mtu uint32_t @12 up bool @16 }");
  write("new.json", R"({"oid":8,"row":{"peer":"1.2.3.4","mtu":1500}})");
  ASSERT_EQ(korvo("convert -l new.layout --from json new.json -o new.rows").status, 0);
  write("link.rows", contentOf("good.rows").substr(firstLength, secondLength));
  expectAll("diff -l port.korvo --new-layout new.layout --in-order link.rows new.rows", 1,
            "~ Link oid 9\n"
            "    (oid): 9 -> 8\n"
            "    mtu: (no column) -> 1500\n"
            "0 same, 1 changed, 0 removed, 0 added\n",
            "");
}

TEST_F(Tool, ComparesInOrderWhatIsOfUnequalLength) {
  write("long.json",
        "{\"oid\":9,\"row\":{\"up\":true}}\n{\"oid\":5,\"row\":{\"up\":true}}\n"
        "{\"oid\":7,\"row\":{}}\n{\"oid\":5,\"row\":{}}\n");
  write("short.json", "{\"oid\":9,\"row\":{}}\n");
  for (const std::string name : {"long", "short"}) {
    std::string words = "convert -l link.korvo --from json ";
    words.append(name).append(".json -o ").append(name).append(".rows");
    ASSERT_EQ(korvo(words).status, 0);
  }
  expectAll("diff -l link.korvo --in-order long.rows short.rows", 1,
            "~ Link oid 9\n    up: true -> false\n- Link oid 5\n- Link oid 7\n- Link oid 5\n"
            "0 same, 1 changed, 3 removed, 0 added\n",
            "");
  expectAll(
      "diff -l link.korvo --in-order --json short.rows long.rows", 1,
      R"({"change":"changed","type":2,"oid":9,"columns":[{"name":"up","old":false,"new":true}]})"
      "\n"
      R"({"change":"added","type":2,"oid":5})"
      "\n"
      R"({"change":"added","type":2,"oid":7})"
      "\n"
      R"({"change":"added","type":2,"oid":5})"
      "\n"
      R"({"same":0,"changed":1,"removed":0,"added":3})"
      "\n",
      "");
  expectAll("diff -l link.korvo --in-order /dev/null short.rows", 1,
            "+ Link oid 9\n0 same, 0 changed, 0 removed, 1 added\n", "");
  expectAll("diff -l link.korvo - - <long.rows", 64, "",
            "korvo: standard input can be one of the files only (see korvo diff --help)\n");
}

TEST_F(Tool, ConvertsToTextAndBack) {
  const std::string csv =
      "oid,speed,name,tags,flags,links,net\n"
      "1,5,eth0,\"[\"\"a\"\",\"\"bc\"\"]\",[true],\"[{\"\"up\"\":true,\"\"peer\"\":\"\"10.0.0."
      "1\"\"}]"
      "\",10.0.0.0/8\n"
      "2,6,,[],[],[],\n";
  expectOut("convert -l port.korvo --row Port --as csv good.rows", csv);
  write("rows.csv", csv);
  expectOut("convert -l port.korvo --row Port --from csv --as csv rows.csv", csv);
  const Outcome there = shell(
      "korvo convert -l port.korvo --row Port --from csv rows.csv -o back.rows && "
      "korvo diff -l port.korvo --row Port good.rows back.rows && "
      "korvo convert -l port.korvo --as json good.rows | cmp rows.json -");
  EXPECT_EQ(there.status, 0) << there.out << there.err;
  // Any text, and any order of columns.
  write("odd.csv", "name,speed\n\"a \"\"quote\"\", a\r\nline\",3\r\n\xC3\xA9,\n");
  expectOut("convert -l port.korvo --row Port --from csv --as json odd.csv",
            "{\"type\":7,\"oid\":0,\"row\":{\"speed\":3,\"name\":\"a \\\"quote\\\", a\\r\\nline\","
            "\"tags\":[],\"flags\":[],\"links\":[],\"net\":null}}\n"
            "{\"type\":7,\"oid\":0,\"row\":{\"speed\":0,\"name\":\"\xC3\xA9\","
            "\"tags\":[],\"flags\":[],\"links\":[],\"net\":null}}\n");
}

TEST_F(Tool, TellsWhatTextDoesNotTell) {
  write(
      "exact.layout",
      "row 7 base 28 { d double @8 s string_t @16 t string_t[] @20 n row 2 base 12 { f float @8 } "
      "@24 }");
  write("exact.json", R"({"oid":5,"row":{"d":1.5,"s":"abc","t":["","xyz"],"n":{"f":2.5}}})"
                      "\n");
  const Outcome made = korvo("convert -l exact.layout --from json exact.json -o exact.rows");
  ASSERT_EQ(made.status, 0) << made.err;
  expectOut("convert -l exact.layout --as json exact.rows | tail -c 37",
            R"("abc","t":["","xyz"],"n":{"f":2.5}}})"
            "\n");
  struct Case {
    const char* before;
    std::string after;
    const char* column;
    bool inCsv;
  };
  const Case cases[] = {
      {"abc", "ab\xFF", "s", false},
      {"xyz", "xy\xFF", "t", true},
      {"\x20\x40", "\x80\x7F", "n", true},  // 2.5f
      {"\xF8\x3F", "\xF0\x7F", "d", true},  // 1.5
  };
  for (const Case& c : cases) {
    std::string bytes = contentOf("exact.rows");
    const std::size_t at = bytes.find(c.before);
    ASSERT_NE(at, bytes.npos) << c.column;
    write("inexact.rows", bytes.replace(at, c.after.size(), c.after));
    ASSERT_EQ(korvo("check -l exact.layout inexact.rows").status, 0);
    const std::string what = std::string("korvo: row of oid 5: column \"") + c.column +
                             "\": an infinity or bytes that are not UTF-8, which the text does not "
                             "tell\n";
    const Outcome json = korvo("convert -l exact.layout --as json inexact.rows");
    EXPECT_EQ(json.status, 1) << c.column;
    EXPECT_EQ(json.err, what);
    EXPECT_EQ(json.out.substr(0, 18), R"({"type":7,"oid":5,)");
    const Outcome csv = korvo("convert -l exact.layout --as csv inexact.rows");
    EXPECT_EQ(csv.status, c.inCsv ? 1 : 0) << c.column;
    EXPECT_EQ(csv.err, c.inCsv ? what : "");
    write("kept.json", "kept");
    expectAll("convert -l exact.layout --as json inexact.rows -o kept.json", 1, "",
              what + "korvo: kept.json: not written, as values would be missing\n");
    EXPECT_EQ(contentOf("kept.json"), "kept");
    EXPECT_EQ(korvo("convert -l exact.layout inexact.rows -o same.rows").status, 0);
    EXPECT_EQ(contentOf("same.rows"), bytes);
  }
}

TEST_F(Tool, ConvertsToAnotherLayout) {
  write("wide.layout",
        "row 7 base 24 { speed uint64_t @8 label string_t @16 mtu uint16_t @20 spare bool @22 }");
  expectOut(
      "convert -l port.korvo --row Port --to wide.layout --alias label=name --as json "
      "good.rows",
      "{\"type\":7,\"oid\":1,\"row\":{\"speed\":5,\"label\":\"eth0\",\"mtu\":0,\"spare\":"
      "false}}\n"
      "{\"type\":7,\"oid\":2,\"row\":{\"speed\":6,\"label\":\"\",\"mtu\":0,\"spare\":false}}"
      "\n");
  expectAll("convert -l port.korvo --row Port --to wide.layout --required mtu good.rows", 65, "",
            "korvo: Layout refused - (column \"mtu\": missing, and required here)\n");
  expectAll("convert -l port.korvo --row Port --to wide.layout --alias name good.rows", 64, "",
            "korvo: not column=former: name (see korvo convert --help)\n");
  expectAll("convert -l port.korvo --row Port --alias a=b good.rows", 64, "",
            "korvo: --alias and --required belong to --to (see korvo convert --help)\n");
  expectAll(
      "convert -l port.korvo --to wide.layout --as json good.rows", 65,
      "{\"type\":7,\"oid\":1,\"row\":{\"speed\":5,\"label\":\"\",\"mtu\":0,\"spare\":false}}\n",
      "korvo: wide.layout: no row of type 2\n");
}

TEST_F(Tool, ConvertsWholeOrNotAtAll) {
  write("kept.rows", "what was there");
  write("half.json", std::string(rows) + "{\"type\":7,\"row\":{\"speed\":-1}}\n");
  expectAll("convert -l port.korvo --from json half.json -o kept.rows", 65, "",
            "korvo: half.json: line 4: column 26: column \"speed\": -1 does not fit uint32_t\n");
  damage("faulty.rows", 12, 8);
  const Outcome result = korvo("convert -l port.korvo faulty.rows -o kept.rows");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("korvo: kept.rows: not written, as rows would be missing\n"),
            std::string::npos);
  EXPECT_EQ(contentOf("kept.rows"), "what was there");
  EXPECT_EQ(shell("ls kept.rows.*").out, "");
  expectAll("convert -l port.korvo good.rows -o /nowhere/x", 74, "",
            "korvo: /nowhere/x: No such file or directory\n");
}

TEST_F(Tool, TellsBadText) {
  struct Case {
    const char* arguments;
    const char* text;
    const char* err;
  };
  const Case cases[] = {
      {"--from json", "[]", "line 1: no object of JSON"},
      {"--from json", "{\"row\":{}", "line 1: no object of JSON"},
      {"--from json", "{\"row\":{}}}", "line 1: no object of JSON"},
      {"--from json", "{\"row\":{}}", "line 1: no \"type\", and several layouts"},
      {"--from json", "{\"type\":3,\"row\":{}}", "line 1: no layout is known for row type 3"},
      {"--from json", "{\"type\":65543,\"row\":{}}",
       "line 1: no layout is known for row type 65543"},
      {"--from json", "{\"type\":7}", "line 1: no \"row\""},
      {"--from json", "{\"type\":7,\"row\":null}", "line 1: the row is null"},
      {"--from json", "{\"type\":7,\"oid\":-1,\"row\":{}}",
       "line 1: \"oid\" is no number from 0 to 4294967295"},
      {"--from json", "{\"type\":\"7\",\"row\":{}}",
       "line 1: \"type\" is no number from 0 to 65535"},
      {"--from json", "{\"type\":7,\"row\":{},\"row\":{}}",
       "line 1: a row has \"type\", \"oid\" and \"row\", once each: \"row\""},
      {"--from json", "\n{\"type\":7,\"row\":{\"speed\":1 2}}",
       "line 2: column 28: expected ',' or '}'"},
      {"--from csv --row Port", "", "line 1: no record that names the columns"},
      {"--from csv --row Port", "speed,mtu\n", "line 1: no column has the name mtu"},
      {"--from csv --row Port", "speed,speed\n", "line 1: a column named twice: speed"},
      {"--from csv --row Port", "speed\n1,2\n", "line 2: 2 fields, and 1 column"},
      {"--from csv --row Port", "speed\nx\n", "line 2: column \"speed\": expected a number"},
      {"--from csv --row Port", "oid,speed\n,1\n",
       "line 2: \"oid\" is no number from 0 to 4294967295"},
      {"--from csv --row Port", "name\n\"x\ny", "line 2: a quote does not end"},
      {"--from csv --row Port", "name\nx\"y\"\n", "line 2: a quote inside a field without quotes"},
      {"--from csv --row Port", "name\n\"x\"y\n", "line 2: text behind a field's closing quote"},
  };
  for (const Case& c : cases) {
    write("bad.txt", c.text);
    expectAll(std::string("convert -l port.korvo --as json ") + c.arguments + " bad.txt", 65, "",
              std::string("korvo: bad.txt: ") + c.err + '\n');
  }
  expectAll("convert -l port.korvo --from csv bad.txt", 64, "",
            "korvo: port.korvo has several rows: name one with --row (see korvo convert --help)\n");
}

TEST_F(Tool, CountsRows) {
  expectOut("stat -l port.korvo good.rows",
            "Link: 1 row, 17 bytes\n"
            "  length  17 to 17, mean 17.0\n"
            "  gaps    0 bytes in 0 rows, 0.0 % of all bytes\n"
            "\n"
            "  column  type       filled    share  mean  longest  bytes\n"
            "  up      bool            0    0.0 %\n"
            "  peer    IpGenAddr       1  100.0 %   4.0        4      4\n"
            "\n"
            "Port: 2 rows, 112 bytes\n"
            "  length  32 to 80, mean 56.0\n"
            "  gaps    0 bytes in 0 rows, 0.0 % of all bytes\n"
            "\n"
            "  column  type         filled    share  mean  longest  bytes\n"
            "  speed   uint32_t          2  100.0 %\n"
            "  name    string_t          1   50.0 %   4.0        4      4\n"
            "  tags    string_t[]        1   50.0 %  13.0       13     13\n"
            "  flags   bool[]            1   50.0 %   3.0        3      3\n"
            "  links   row[]             1   50.0 %  23.0       23     23\n"
            "  net     IpGenPrefix       1   50.0 %   5.0        5      5\n");
  damage("gap.rows", 14, 2);
  expectOut(
      "stat -l port.korvo --row Port --json gap.rows",
      R"({"name":"Port","type":7,"rows":2,"bytes":112,"shortest":32,"longest":80,"gapBytes":2,)"
      R"("gapRows":1,"columns":[{"name":"speed","type":"uint32_t","filled":2},)"
      R"({"name":"name","type":"string_t","filled":1,"bytes":2,"longest":2},)"
      R"({"name":"tags","type":"string_t[]","filled":1,"bytes":13,"longest":13},)"
      R"({"name":"flags","type":"bool[]","filled":1,"bytes":3,"longest":3},)"
      R"({"name":"links","type":"row[]","filled":1,"bytes":23,"longest":23},)"
      R"({"name":"net","type":"IpGenPrefix","filled":1,"bytes":5,"longest":5}]})"
      "\n");
  expectOut("stat -l port.korvo /dev/null", "no rows\n");
}

TEST_F(Tool, ReadsPackedFiles) {
#ifdef KORVO_WITH_ARCHIVE
  for (const char* const packer : {"gzip", "zstd -q"}) {
    const Outcome result = shell(std::string(packer) +
                                 " -c <good.rows >packed && korvo check -l port.korvo packed && "
                                 "head -c 60 packed >torn && korvo check -l port.korvo torn");
    EXPECT_EQ(result.status, 65) << packer;
    EXPECT_EQ(result.out, "packed: 3 good rows\n") << packer;
    EXPECT_EQ(result.err.substr(0, 13), "korvo: torn: ") << packer;
    EXPECT_EQ(shell(std::string("true | ") + packer + " | korvo check -l port.korvo -").out,
              "standard input: 0 good rows\n");
  }
  EXPECT_EQ(korvo("check -l port.korvo --plain packed").status, 1);
#else
  expectAll("check -l port.korvo packed", 66, "", "korvo: packed: No such file or directory\n");
  write("packed", "\x1F\x8B\x08 and so on");
  expectAll("check -l port.korvo packed", 65, "",
            "korvo: packed: gzip and zstd files are not read by this build of korvo; --plain takes "
            "the bytes as they are\n");
#endif
}

TEST_F(Tool, TellsBadDefinitions) {
  struct Case {
    std::string text;
    const char* err;
  };
  const Case cases[] = {
      {"", "line 1, column 1: expected \"row\""},
      {"# only a note\n", "line 2, column 1: expected \"row\""},
      {"table x {}", "line 1, column 1: expected \"row\""},
      {"row Port 70000 {}", "line 1, column 10: expected a row type from 0 to 65535"},
      {"row Port 7 x {}", "line 1, column 12: expected \"base\" or '{'"},
      {"row Port 7 base 7 {}",
       "line 1, column 17: the base length is less than 8, where the columns end"},
      {"row Port 7 { a }", "line 1, column 16: expected the column's type"},
      {"row Port 7 { a uint33_t }", "line 1, column 16: unknown type - (uint33_t)"},
      {"row Port 7 { a uint8_t[] }", "line 1, column 23: there are no arrays of uint8_t"},
      {"row Port 7 { a bool[ }", "line 1, column 22: expected ']'"},
      {"row Port 7 { a bool\n  a bool }", "line 2, column 3: two columns have the name \"a\""},
      {"row Port 7 { a bool @7 }", "line 1, column 14: column \"a\" lies in the header"},
      {"row Port 7 { a bool @65535 }", "line 1, column 14: column \"a\" ends behind 65535 bytes"},
      {"row Port 7 { a uint32_t @10 b bool @13 }",
       "line 1, column 29: columns \"a\" and \"b\" overlap"},
      {"row Port 7 { 1a bool }",
       "line 1, column 14: a name that begins with a digit stands in quotes"},
      {"row Port 7 { \"a bool }", "line 1, column 14: the name's quote does not end"},
      {"row Port 7 { \"\xFF\" bool }", "line 1, column 14: the name is not UTF-8"},
      {"row Port 7 { a bool", "line 1, column 20: expected a column's name or '}'"},
      {"row A 1 {} row A 2 {}", "line 1, column 16: two rows have the name A"},
      {"row A 1 {} row B 1 {}", "rows A and B have the same type; name one with --row"},
      {"row A 1 { b B } row B 2 {}", "line 1, column 13: unknown type - (B)"},
      {"row bool 1 {}", "line 1, column 5: \"bool\" is a type's name"},
      {"row A 1 {} namespace x", "line 1, column 12: the namespace stands before the rows"},
      {"namespace x:y row A 1 {}", "line 1, column 12: expected \"row\""},
  };
  for (const Case& c : cases) {
    write("bad.korvo", c.text);
    expectAll("layout print bad.korvo", 65, "", std::string("korvo: bad.korvo: ") + c.err + '\n');
  }
  write("deep.korvo", [] {
    std::string text = "row A0 1 { a bool }\n";
    for (int i = 1; i < 18; ++i) {
      text += "row A" + std::to_string(i) + " 1 { a A" + std::to_string(i - 1) + " }\n";
    }
    return text;
  }());
  expectAll("layout print deep.korvo", 65, "",
            "korvo: deep.korvo: line 18, column 20: Layout nested too deep\n");
  write("wide.korvo", [] {
    std::string text = "row A0 1 { a bool }\n";
    for (int i = 1; i < 14; ++i) {
      const std::string last = "A" + std::to_string(i - 1);
      text.append("row A").append(std::to_string(i)).append(" 1 { a ").append(last);
      text.append(" b ").append(last).append(" }\n");
    }
    return text;
  }());
  EXPECT_EQ(korvo("layout print wide.korvo").status, 65);
  // Few words for more rows than anybody has time to look at.
  write("many.korvo", [] {
    std::string text = "row A0 0 { a bool }\n";
    for (int i = 1; i < 4000; ++i) {
      const std::string last = "A" + std::to_string(std::min(i - 1, 10));
      text.append("row A").append(std::to_string(i)).append(" ").append(std::to_string(i));
      text.append(" { a ").append(last).append(i < 11 ? " b " + last : "").append(" }\n");
    }
    return text;
  }());
  expectAll("layout print many.korvo", 65, "",
            "korvo: many.korvo: line 95, column 21: too many columns in all rows\n");
}

TEST_F(Tool, PrintsLayouts) {
  const std::string text = "row 2 base 13 {\n  up bool @8\n  peer IpGenAddr @9\n}\n";
  expectOut("layout print --row Link port.korvo", text);
  expectOut("layout print --row Link --named port.korvo", "row Link" + text.substr(3));
  const std::string digest = Korvo::DynamicLayout(text).fingerprint().digest();
  expectOut("layout print --row Link --fingerprint port.korvo", digest + "  Link\n");
  expectOut(
      "layout print --row Link --json port.korvo",
      R"({"row":"Link","type":2,"base":13,"fingerprint":")" + digest +
          R"(","text":"row 2 base 13 {\u000a  up bool @8\u000a  peer IpGenAddr @9\u000a}\u000a"})"
          "\n");
  // A layout's text is a definition, and the other way round.
  write("all.layouts", korvo("layout print port.korvo").out);
  expectOut("layout print all.layouts", contentOf("all.layouts"));
  EXPECT_EQ(korvo("layout diff all.layouts port.korvo").status, 0);
  expectAll("layout print --row Nobody port.korvo", 65, "",
            "korvo: port.korvo: no row has the name Nobody\n");
}

TEST_F(Tool, ComparesLayouts) {
  struct Case {
    const char* newer;
    int status;
    const char* last;  ///< line
  };
  const char* const older =
      "row 7 base 18 { speed uint32_t @8 name string_t @12 mtu uint16_t @16 }";
  write("old.layout", older);
  const Case cases[] = {
      {older, 0, "  same     mtu uint16_t\n"},
      {"row 7 base 20 { speed uint32_t @8 name string_t @12 mtu uint16_t @18 }", 1,
       "  same     mtu uint16_t\n"},
      {"row 7 base 20 { speed uint32_t @8 name string_t @12 mtu uint32_t @16 }", 1,
       "  widened  mtu uint16_t -> uint32_t\n"},
      {"row 7 base 16 { speed uint32_t @8 name string_t @12 }", 2, "  dropped  mtu uint16_t\n"},
      {"row 7 base 19 { speed uint32_t @8 name string_t @12 mtu uint16_t @16 up bool @18 }", 2,
       "  missing  up bool\n"},
      {"row 7 base 18 { speed uint32_t @8 name string_t @12 mtu int16_t @16 }", 3,
       "  refused  mtu: uint16_t, here int16_t\n"},
      {"row 8 base 18 { speed uint32_t @8 name string_t @12 mtu uint16_t @16 }", 3,
       "  same     mtu uint16_t\n"},
  };
  for (const Case& c : cases) {
    write("new.layout", c.newer);
    const Outcome result = korvo("layout diff old.layout new.layout");
    EXPECT_EQ(result.status, c.status) << c.newer;
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(result.out.ends_with(c.last)) << result.out;
    EXPECT_EQ(korvo("layout diff --json old.layout new.layout").status, c.status);
  }
  EXPECT_NE(korvo("layout diff old.layout new.layout").out.find("refused  row type 7, here 8\n"),
            std::string::npos);
  expectAll("layout diff old.layout new.layout --required nobody", 64, "",
            "korvo: Unknown column - (nobody) (see korvo layout diff --help)\n");
  // Several rows go by their names.
  write("a.korvo", "row A 1 { x bool } row B 2 {}");
  write("b.korvo", "row A 1 { x bool } row C 3 {}");
  const Outcome several = korvo("layout diff a.korvo b.korvo");
  EXPECT_EQ(several.status, 2);
  EXPECT_TRUE(several.out.ends_with("\nB: gone\nC: new\n")) << several.out;
  expectAll("layout diff old.layout /nowhere", 66, "",
            "korvo: /nowhere: No such file or directory\n");
}

TEST_F(Tool, TellsWhatCannotBeGenerated) {
  struct Case {
    const char* text;
    const char* err;
  };
  const Case cases[] = {
      {"row 7 {}", "a row without a name: write \"row NAME 7\""},
      {"row A 7 base 20 { a bool }",
       "row A: base 20 lies behind its last column, which declared layouts end with (9)"},
      {"row B 8 {} row A 7 { bs B[] }",
       "column bs of row A: declared layouts have no arrays of rows"},
      {"row A 7 {} row ALayout 8 {}", "two types would have the name ALayout"},
      {"row A 7 { b row 8 {} } row AB 9 {}", "two types would have the name AB"},
  };
  for (const Case& c : cases) {
    write("bad.korvo", c.text);
    write("kept.h", "kept");
    expectAll("generate bad.korvo -o kept.h", 65, "",
              std::string("korvo: bad.korvo: ") + c.err + '\n');
    EXPECT_EQ(contentOf("kept.h"), "kept");
  }
  expectOut("generate link.korvo --namespace a::b | grep namespace",
            "namespace a::b {\n}  // namespace a::b\n");
  expectOut("generate link.korvo -o port.h", "");
  EXPECT_EQ(contentOf("port.h"), korvo("generate link.korvo").out);
}

TEST_F(Tool, KnowsAddresses) {
  struct Case {
    const char* text;
    const char* shortText;
  };
  const Case cases[] = {
      {"::", "::"},
      {"::1", "::1"},
      {"1::", "1::"},
      {"2001:db8::1", "2001:db8::1"},
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
      {"ABCD:EF01:2345:6789:abcd:ef01:2345:6789", "abcd:ef01:2345:6789:abcd:ef01:2345:6789"},
      {"10.1.2.3", "10.1.2.3"},
  };
  for (const Case& c : cases) {
    const Outcome result = korvo(std::string("address ") + c.text);
    EXPECT_NE(result.out.find(std::string("\nshort   ") + c.shortText + '\n'), std::string::npos)
        << result.out;
  }
  expectOut("address --json 1.2.3.4 ::1",
            R"({"address":"1.2.3.4","short":"1.2.3.4","family":"ipv4","bytes":"01 02 03 04"})"
            "\n"
            R"({"address":"0000:0000:0000:0000:0000:0000:0000:0001","short":"::1","family":"ipv6",)"
            R"("bytes":"00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01"})"
            "\n");
  expectAll("address 1.2.3", 65, "", "korvo: Invalid Address - (1.2.3)\n");
  expectAll("address", 64, "", "korvo: ADDRESS is required (see korvo address --help)\n");
}

TEST_F(Tool, KnowsPrefixes) {
  expectOut("prefix parse 2001:db8::/33 10.0.0.0/0 --json",
            R"({"prefix":"2001:0db8:0000:0000:0000:0000:0000:0000/33","short":"2001:db8::/33",)"
            R"("family":"ipv6","first":"2001:0db8:0000:0000:0000:0000:0000:0000",)"
            R"("last":"2001:0db8:7fff:ffff:ffff:ffff:ffff:ffff",)"
            R"("bytes":"20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 00"})"
            "\n"
            R"({"prefix":"10.0.0.0/0","short":"10.0.0.0/0","family":"ipv4","first":"10.0.0.0",)"
            R"("last":"255.255.255.255","bytes":"0a 00 00 00"})"
            "\n");
  expectOut("prefix contains 10.0.0.0/8 10.9.9.9 10.0.0.0/8", "10.9.9.9 yes\n10.0.0.0/8 yes\n");
  expectAll("prefix contains 10.0.0.0/8 11.0.0.0/9 ::1 --json", 1,
            R"({"prefix":"10.0.0.0/8","other":"11.0.0.0/9","contains":false})"
            "\n"
            R"({"prefix":"10.0.0.0/8","other":"::1","contains":false})"
            "\n",
            "");
  expectAll("prefix parse 10.0.0.1/8", 65, "",
            "korvo: Invalid Prefix - non-zero after prefixlen\n");
  expectAll("prefix parse 10.0.0.0/33", 65, "", "korvo: Invalid IPv4 Prefix Length\n");
  expectAll("prefix parse 10.0.0.0", 65, "", "korvo: Prefix missing subnet\n");
  expectAll(
      "prefix contains 10.0.0.0/8", 64, "",
      "korvo: PREFIX: At least 2 required but received 1 (see korvo prefix contains --help)\n");
  expectOut("prefix order ::/0 10.0.0.0/8 10.0.0.0/16 --json",
            R"(["10.0.0.0/16","10.0.0.0/8","0000:0000:0000:0000:0000:0000:0000:0000/0"])"
            "\n");
}

TEST_F(Tool, KnowsQueries) {
  expectOut("query '  select a  from t /* x */ INTO Port NAMED p; '",
            "query   select a from t INTO Port NAMED p;\nname    p\ntype    Port\n");
  expectOut("query 'select a into Port;' --json", R"({"query":"select a into Port;","type":"Port"})"
                                                  "\n");
  // Without a type the library would stop the process.
  for (const char* const text : {"", "x", "into", "a b c d", "into a b c d"}) {
    const Outcome result = korvo("query '" + std::string(text) + "'");
    EXPECT_EQ(result.status, 0) << text << result.err;
    EXPECT_EQ(result.out, "query   " + std::string(text) + '\n');
  }
  EXPECT_EQ(shell("printf 'a\\n b' | korvo query -").out, "query   a b\n");
  expectAll("query \"it's\"", 65, "", "korvo: a quote or a comment does not end\n");
}

TEST_F(Tool, TellsMissingFiles) {
  const std::string missing = "korvo: /nowhere: No such file or directory\n";
  for (const char* const arguments :
       {"check -l port.korvo /nowhere", "show -l port.korvo /nowhere",
        "annotate -l port.korvo /nowhere", "diff -l port.korvo good.rows /nowhere",
        "convert -l port.korvo --as json /nowhere", "stat -l port.korvo /nowhere",
        "layout print /nowhere", "generate /nowhere", "check -l /nowhere good.rows"}) {
    expectAll(arguments, 66, "", missing);
  }
  expectAll("check -l port.korvo .", 66, "", "korvo: .: is a directory\n");
  expectAll("check -l port.korvo good.rows /nowhere", 66, "good.rows: 3 good rows\n", missing);
}

/// Every command that reads rows or what becomes rows; {L} is the layout's file, {F} the input.
struct Reading {
  const char* arguments;
  const char* form;  ///< of the input
};
constexpr Reading readings[] = {
    {"check -l {L} {F}", "rows"},
    {"check -l {L} --json {F}", "rows"},
    {"show -l {L} {F}", "rows"},
    {"show -l {L} --json {F}", "rows"},
    {"annotate -l {L} {F}", "rows"},
    {"annotate -l {L} --json {F}", "rows"},
    {"diff -l {L} {F} good.rows", "rows"},
    {"diff -l {L} good.rows {F}", "rows"},
    {"diff -l {L} --in-order {F} good.rows", "rows"},
    {"stat -l {L} {F}", "rows"},
    {"stat -l {L} --json {F}", "rows"},
    {"convert -l {L} {F}", "rows"},
    {"convert -l {L} --as json {F}", "rows"},
    {"convert -l {L} --as csv --row Port {F}", "rows"},
    {"convert -l {L} --to {L} {F}", "rows"},
    {"convert -l {L} --from json {F}", "json"},
    {"convert -l {L} --from json --as json {F}", "json"},
    {"convert -l {L} --from csv --row Port {F}", "csv"},
};

std::string with(std::string arguments, const std::string& layout, const std::string& file) {
  for (const auto& [mark, name] : {std::pair("{L}", layout), std::pair("{F}", file)}) {
    for (std::size_t at = arguments.find(mark); at != arguments.npos; at = arguments.find(mark)) {
      arguments.replace(at, 3, name);
    }
  }
  return arguments;
}

TEST_F(Tool, EveryReaderTellsBadInput) {
  write("bad.korvo", "row Port 7 {\n  speed uint33_t\n}\n");
  write("stranger.korvo", "row Port 8 {\n  up bool\n}\n");
  write("later.korvo", "row Port 7 {\n  name string_t\n  more uint64_t @40\n}\nrow Link 2 {}\n");
  write("torn.rows", contentOf("good.rows").substr(0, firstLength + secondLength + 10));
  write("torn.json", std::string(rows).substr(0, std::string(rows).size() - 10));
  write("good.csv", "oid,speed\n1,2\n");
  write("torn.csv", "oid,name\n1,\"eth");
  for (const Reading& reading : readings) {
    const std::string form = reading.form;
    const std::string good = form == "json" ? "rows.json" : "good." + form;
    const auto run = [&](const char* layout, const std::string& file) {
      Outcome result = korvo(with(reading.arguments, layout, file));
      EXPECT_NE(result.status, 0) << reading.arguments << ' ' << file;
      return result;
    };
    const auto says = [&](const Outcome& result, int status, const std::string& text) {
      EXPECT_EQ(result.status, status) << reading.arguments << result.err;
      EXPECT_NE((result.out + result.err).find(text), std::string::npos)
          << reading.arguments << result.out << result.err;
    };
    says(run("port.korvo", "/nowhere"), 66, "korvo: /nowhere: No such file or directory\n");
    says(run("port.korvo", "."), 66, "korvo: .: is a directory\n");
    says(run("/nowhere", good), 66, "korvo: /nowhere: No such file or directory\n");
    says(run("bad.korvo", good), 65,
         "korvo: bad.korvo: line 2, column 9: unknown type - (uint33_t)\n");
    says(run("port.korvo", "- <&-"), 66, "korvo: standard input: Bad file descriptor\n");
    const Outcome torn = run("port.korvo", "torn." + form);
    const Outcome stranger = run("stranger.korvo", good);
    const Outcome later = run("later.korvo", good);
    if (form == "rows") {
      says(torn, 1, "a row of 32 bytes begins, of which 10 are there");
      says(stranger, 1, "no layout is known for this row type");
      EXPECT_EQ(later.status, 1) << reading.arguments;
    } else if (form == "json") {
      says(torn, 65, "torn.json: line 3: no object of JSON");
      says(stranger, 65, "rows.json: line 1: no layout is known for row type 7");
      says(later, 65, "rows.json: line 1: column 26: unknown column - (speed)");
    } else {
      says(torn, 65, "torn.csv: line 2: a quote does not end");
      says(stranger, 65, "good.csv: line 1: no column has the name speed");
      says(later, 65, "good.csv: line 1: no column has the name speed");
    }
  }
  for (const char* const arguments : {"layout print ", "layout diff port.korvo ", "generate "}) {
    expectAll(std::string(arguments) + "bad.korvo", 65, "",
              "korvo: bad.korvo: line 2, column 9: unknown type - (uint33_t)\n");
    expectAll(std::string(arguments) + "good.rows", 65, "",
              "korvo: good.rows: line 1, column 1: expected \"row\"\n");
    expectAll(std::string(arguments) + ".", 66, "", "korvo: .: is a directory\n");
    expectAll(std::string(arguments) + "- <&-", 66, "",
              "korvo: standard input: Bad file descriptor\n");
  }
  expectAll("query - <&-", 66, "", "korvo: standard input: Bad file descriptor\n");
}

TEST_F(Tool, EndsWithItsReader) {
  write("wide.layout", "row 7 base 16 { speed uint64_t @8 }");
  for (const char* const arguments : {"check -l port.korvo good.rows",
                                      "show -l port.korvo good.rows",
                                      "annotate -l port.korvo good.rows",
                                      "diff -l port.korvo good.rows good.rows",
                                      "convert -l port.korvo good.rows",
                                      "convert -l port.korvo --as json good.rows",
                                      "convert -l port.korvo --row Port --as csv good.rows",
                                      "convert -l port.korvo --row Port --to wide.layout good.rows",
                                      "convert -l port.korvo --from json rows.json",
                                      "stat -l port.korvo good.rows",
                                      "layout print port.korvo",
                                      "layout diff port.korvo port.korvo",
                                      "generate link.korvo",
                                      "address ::1",
                                      "prefix parse ::/0",
                                      "prefix contains ::/0 ::",
                                      "prefix order ::/0",
                                      "query x",
                                      "--help",
                                      "check --help"}) {
    // A pipe that nobody reads any more: the signal ends it as it ends others; where it is ignored,
    // it says so.
    const std::string line = " exec 3> >(exec 3>&-); wait $!; korvo " + std::string(arguments);
    EXPECT_EQ(shell(line + " >&3").status, 128 + 13) << arguments;
    const Outcome ignored = shell("trap '' PIPE;" + line + " >&3");
    EXPECT_EQ(ignored.status, 74) << arguments;
    EXPECT_EQ(ignored.err.substr(0, 7), "korvo: ") << arguments << ignored.err;
  }
}

TEST_F(Tool, TellsWhenItsOutputIsLost) {
  for (const char* const arguments :
       {"check -l port.korvo good.rows", "show -l port.korvo good.rows",
        "annotate -l port.korvo good.rows", "diff -l port.korvo good.rows good.rows",
        "convert -l port.korvo good.rows", "stat -l port.korvo good.rows",
        "layout print port.korvo", "layout diff port.korvo port.korvo", "generate link.korvo",
        "address ::1", "prefix parse ::/0", "prefix contains ::/0 ::", "prefix order ::/0",
        "query x"}) {
    const std::string line = std::string("korvo ") + arguments;
    const Outcome full = shell(line + " >/dev/full");
    EXPECT_EQ(full.status, 74) << arguments;
    EXPECT_EQ(full.err, "korvo: standard output: No space left on device\n") << arguments;
    const Outcome closed = shell(line + " >&-");
    EXPECT_EQ(closed.status, 74) << arguments;
    EXPECT_EQ(closed.err, "korvo: standard output: Bad file descriptor\n") << arguments;
    const Outcome pipe = shell("trap '' PIPE; " + line + " | true; echo ${PIPESTATUS[0]}");
    EXPECT_TRUE(pipe.out == "0\n" || pipe.out == "1\n" || pipe.out == "74\n") << pipe.out;
  }
  EXPECT_EQ(shell("korvo --help >/dev/full").status, 74);
  // Nobody has to hear of a reader that has seen enough.
  EXPECT_EQ(shell("korvo show -l port.korvo $(printf 'good.rows %.0s' {1..5000}) | head -n 1; "
                  "echo ${PIPESTATUS[0]}")
                .err,
            "");
}

TEST_F(Tool, AnswersMistakesWithOneLine) {
  struct Case {
    const char* arguments;
    const char* err;
  };
  const Case cases[] = {
      {"", "no command (see korvo --help)"},
      {"frobnicate", "The following argument was not expected: frobnicate (see korvo --help)"},
      {"layout", "A subcommand is required (see korvo layout --help)"},
      {"check good.rows",
       "good.rows: is no recording: --layout is required (see korvo check --help)"},
      {"check -l port.korvo", "FILE is required (see korvo check --help)"},
      {"check -l port.korvo --fast good.rows",
       "The following argument was not expected: --fast (see korvo check --help)"},
      {"show -l port.korvo --oid x good.rows",
       "Could not convert: --oid = x (see korvo show --help)"},
      {"show -l port.korvo --oid -1 good.rows",
       "Could not convert: --oid = -1 (see korvo show --help)"},
      {"show -l port.korvo --oid 4294967296 good.rows",
       "Could not convert: --oid = 4294967296 (see korvo show --help)"},
      {"convert -l port.korvo --as xml good.rows",
       "--as: rows, json or csv, not xml (see korvo convert --help)"},
      {"show -l port.korvo --color blue good.rows",
       "--color: auto, always or never, not blue (see korvo show --help)"},
      {"annotate --at 1 --oid 2 good.rows", "--oid excludes --at (see korvo annotate --help)"},
  };
  for (const Case& c : cases) {
    expectAll(c.arguments, 64, "", std::string("korvo: ") + c.err + '\n');
  }
}

}  // namespace
