#include "firmware/data_stream.h"

#include <gtest/gtest.h>

#include "support/fixture_root.h"
#include "support/trace_capture.h"

TEST(DataStream, ReadsWholeFiles) {
  const FixtureRoot root;
  const std::string large = std::string(40000, 'x') + '\0' + "end";
  root.WriteFile("/large", large);
  root.WriteFile("/empty", "");
  root.Run([&large] {
    const TraceCapture trace(5);
    CDataStream stream("old", 3);
    EXPECT_TRUE(CDataStream::ReadFromFile("/large", stream));
    EXPECT_EQ(std::string(stream.Bytes().begin(), stream.Bytes().end()), large);
    EXPECT_TRUE(trace.Has("CDataStream::ReadFromFile() : Read 40004 bytes."));
    EXPECT_TRUE(CDataStream::ReadFromFile("/empty", stream));
    EXPECT_TRUE(stream.IsEmpty());
    for (const char* path : {"/missing", "/", ""}) {
      stream = CDataStream("old", 3);
      EXPECT_FALSE(CDataStream::ReadFromFile(path, stream)) << path;
      EXPECT_TRUE(stream.IsEmpty()) << path;
    }
    EXPECT_EQ(trace.Count("CDataStream::ReadFromFile() : Could not read file : '"), 3);
    EXPECT_TRUE(trace.Has("CDataStream::ReadFromFile() : Argument file path is empty!"));
  });
}

TEST(DataStream, DumpsLines) {
  struct Row {
    std::string data;
    bool offset, ascii;
    size_t perLine;
    int unit;
    const char* prefix;
    const char* text;
  };
  const Row rows[] = {
      {"AB\n", true, true, 2, 1, nullptr, "0000: 41 42   AB\n0002: 0A      . "},
      {"AB\n", true, true, 3, 1, nullptr, "41 42 0A   AB."},  // a single line has no offset column
      {"AB\n", true, true, 16, 1, "> ", "> 41 42 0A   AB."},  // and is not filled up
      {"AB\n", false, true, 2, 1, "> ", "> 41 42   AB\n> 0A      . "},
      {"A\0BCD", false, true, 4, 2, nullptr, "0041 4342   A.\n0044      D "},  // the last unit is cut short
      {"ABCD\x7F", true, true, 4, 4, nullptr, "0000: 44434241 \n0004: 0000007F "},
      {"ABC", false, true, 0, 7, nullptr, "41   A\n42   B\n43   C"},
      {"", true, true, 16, 1, nullptr, ""},
  };
  for (Row row : rows) {
    if (row.unit == 2) row.data = std::string("A\0BCD", 5);
    std::string out = "old";
    CDataStream::DumpHex(out, row.data.data(), row.data.size(), row.offset, row.ascii, row.perLine, row.unit,
                         row.prefix);
    EXPECT_EQ(out, row.text);
  }
  std::string out;
  CDataStream::DumpHex(out, nullptr, 5, true, true, 16, 1, nullptr);
  EXPECT_EQ(out, "(null)");
  const std::string two(32, 'a');
  CDataStream::DumpHex(out, two.data(), two.size(), true, true, 16, 1, nullptr);
  EXPECT_EQ(out.find("\n0010: 61 "), 6 + 48 + 2 + 16U);
}
