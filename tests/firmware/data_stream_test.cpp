#include "firmware/data_stream.h"

#include "support/trace_capture.h"

TEST(DataStream, ReadsWholeFiles) {
  const FixtureRoot root;
  const std::string large = std::string(40000, 'x') + '\0' + "end";
  root.WriteFile("/large", large);
  root.WriteFile("/empty", "");
  RunTraced(root, 5, [&large](TraceCapture& trace) {
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
  const auto dump = [](const std::string& data, bool offset, bool ascii, size_t perLine, int unit, const char* prefix) {
    std::string out = "old";
    CDataStream::DumpHex(out, data.data(), data.size(), offset, ascii, perLine, unit, prefix);
    return out;
  };
  EXPECT_EQ(dump("AB\n", true, true, 2, 1, nullptr), "0000: 41 42   AB\n0002: 0A      . ");
  EXPECT_EQ(dump("AB\n", true, true, 3, 1, nullptr), "41 42 0A   AB.");  // a single line has no offset column
  EXPECT_EQ(dump("AB\n", true, true, 16, 1, "> "), "> 41 42 0A   AB.");  // and is not filled up
  EXPECT_EQ(dump("AB\n", false, true, 2, 1, "> "), "> 41 42   AB\n> 0A      . ");
  EXPECT_EQ(dump(std::string("A\0BCD", 5), false, true, 4, 2, nullptr), "0041 4342   A.\n0044      D ");
  EXPECT_EQ(dump("ABCD\x7F", true, true, 4, 4, nullptr), "0000: 44434241 \n0004: 0000007F ");
  EXPECT_EQ(dump("ABC", false, true, 0, 7, nullptr), "41   A\n42   B\n43   C");
  EXPECT_EQ(dump(std::string(32, 'a'), true, false, 16, 1, nullptr).substr(54, 10), "\n0010: 61 ");
  std::string out;
  CDataStream::DumpHex(out, nullptr, 5, true, true, 16, 1, nullptr);
  EXPECT_EQ(out, "(null)");
}
