// The settings of the trace: what they are, where each comes from, and who changes them.

#include "ravctl/ravctl_runner.h"

using ::testing::HasSubstr;

const std::string kFiles = "/etc/norrow/QuennetSuite/TraceConfig/";

TEST(TraceConfig, ValueSourceAndIgnoredFiles) {
  const ToolRoot machine;
  machine.WriteFile(kFiles + "a.ini", "[ravd]\nFileDebugLevel=3\n");  // no end
  machine.WriteFile(kFiles + "b.ini", "[RAVD]\nFileDebugLevel = 0x4\nRingBufferSizeFactor=7\n[EndOfFile]\n");
  machine.WriteFile(kFiles + "c.ini", "[ravd]\nFileDebugLevel=5\n[EndOfFile]\n");
  const auto setting = [](const nlohmann::json& answer, const char* name) {
    for (const nlohmann::json& row : answer["data"]["settings"]) {
      if (row["name"] == name) return row;
    }
    return nlohmann::json();
  };
  nlohmann::json answer = machine.Json({"trace", "config"}, 0,
                                       {"QN_LOG_RINGBUF_WEIGHT=2", "QN_LOG_FILE_MAX_SIZE=1", "QN_LOG_RINGBUF_DIR="});
  EXPECT_EQ(setting(answer, "level")["value"], "4");
  EXPECT_EQ(setting(answer, "level")["from"], kFiles + "b.ini: FileDebugLevel");
  EXPECT_EQ(setting(answer, "ring_buffer_factor")["comment"], "counts as 2");
  EXPECT_EQ(setting(answer, "ring_buffer_weight")["source"], "environment");
  EXPECT_EQ(setting(answer, "ring_buffer_size")["value"], "4194304");
  EXPECT_EQ(setting(answer, "directory")["source"], "default");
  EXPECT_EQ(setting(answer, "directory")["value"], "/var/log/pelrix");
  EXPECT_EQ(answer["data"]["tracing"], true);
  EXPECT_EQ(answer["data"]["files"][0]["reason"], "its last bracketed name is not [EndOfFile]");
  EXPECT_EQ(answer["data"]["files"][2]["reason"], "b.ini comes first");

  EXPECT_EQ(machine.Json({"trace", "level", "6"})["data"]["effective_level"], 6);
  EXPECT_EQ(machine.ReadFile(kFiles + "b.ini"), "[RAVD]\nFileDebugLevel = 6\nRingBufferSizeFactor=7\n[EndOfFile]\n");
  EXPECT_EQ(machine.Json({"trace", "level", "2", "--app", "tool"})["data"]["effective_level"], 2);
  EXPECT_EQ(machine.ReadFile(kFiles + "tool_trace.ini"), "[tool]\nFileDebugLevel=2\n\n[EndOfFile]\n");
}

TEST(TraceLevel, TouchesNothingButTheLevel) {
  struct Row {
    const char* before;
    const char* after;  // null: refused, and the file is as it was
  };
  const Row rows[] = {
      {"[ravd]\nFileDebugLevel=\nRingBufferSizeFactor=1\n[EndOfFile]\n",
       "[ravd]\nFileDebugLevel=4\nRingBufferSizeFactor=1\n[EndOfFile]\n"},
      {"[ravd]\nTraceFlags=1\nFileDebugLevel = [EndOfFile]", "[ravd]\nTraceFlags=1\nFileDebugLevel = 4[EndOfFile]"},
      {"[RAVD]\r\n  FileDebugLevel = 0x2 ; loud\r\n[EndOfFile]\r\n",
       "[RAVD]\r\n  FileDebugLevel = 4 ; loud\r\n[EndOfFile]\r\n"},
      {"[ravd]\n; FileDebugLevel: 0 to 6\nFileDebugLevel=1\n[EndOfFile]\n",
       "[ravd]\n; FileDebugLevel: 0 to 6\nFileDebugLevel=4\n[EndOfFile]\n"},
      {"[ravd] ; all\nTraceFlags=1\n[EndOfFile]\n", "[ravd] ; all\nFileDebugLevel=4\nTraceFlags=1\n[EndOfFile]\n"},
      // A level that a comment holds is the one that counts.
      {"[ravd]\n; FileDebugLevel=2 is best\nTraceFlags=1\n[EndOfFile]\n",
       "[ravd]\nFileDebugLevel=4\n; FileDebugLevel=2 is best\nTraceFlags=1\n[EndOfFile]\n"},
      {"[ravd]\nFileDebugLevel\nTraceFlags=1\n[EndOfFile]\n",
       "[ravd]\nFileDebugLevel=4\nFileDebugLevel\nTraceFlags=1\n[EndOfFile]\n"},
      {"[ravd][EndOfFile]", "[ravd]\nFileDebugLevel=4\n[EndOfFile]"},
      {"[other]\nTraceFlags=1\n\n[endoffile]\n", "[other]\nTraceFlags=1\n\n[ravd]\nFileDebugLevel=4\n\n[endoffile]\n"},
      {"", "[ravd]\nFileDebugLevel=4\n\n[EndOfFile]\n"},
      {"[ravd]\nFileDebugLevel=3\n", nullptr},
      {"[ravd] no FileDebugLevel, TraceFlags=1\n[EndOfFile]\n", nullptr},
  };
  const ToolRoot machine;
  machine.MakeDirectory(kFiles);
  machine.MakeLink(kFiles + "ravd_trace.ini", "/conf/ravd");
  for (const Row& row : rows) {
    machine.WriteFile("/conf/ravd", row.before, 0640);
    const ToolResult result = machine.Ravctl({"trace", "level", "4"});
    EXPECT_EQ(result.status, row.after != nullptr ? 0 : 5) << row.before << result.err;
    EXPECT_EQ(machine.ReadFile("/conf/ravd"), row.after != nullptr ? row.after : row.before);
    EXPECT_TRUE(std::filesystem::is_symlink(machine.HostPath(kFiles + "ravd_trace.ini")));
    EXPECT_EQ(machine.Mode("/conf/ravd") & 07777U, 0640U);
  }
  for (const char* name : {"../../../x", "", "a/b", "a]b", "a[b", "a\nb", "EndOfFile"}) {
    const ToolResult result = machine.Ravctl({"trace", "level", "4", "--app", name});
    EXPECT_EQ(result.status, 2) << name << result.err;
    EXPECT_THAT(result.err, HasSubstr("not the name of an application")) << name;
  }
  EXPECT_FALSE(machine.Exists("/etc/x_trace.ini"));
  std::filesystem::remove_all(machine.HostPath(kFiles));
  EXPECT_THAT(machine.Ravctl({"trace", "level", "4"}).err, HasSubstr("cannot make a file in: /etc/norrow"));
}

// What writers at the same time set is all there, and none waits for good.
TEST(TraceLevel, WritersWaitForEachOther) {
  const ToolRoot machine;
  const std::string file = kFiles + "all.ini";
  std::string text;
  for (char name = 'a'; name < 'i'; ++name)
    text += std::string("[app_") + name + "]\nFileDebugLevel=\n";
  machine.WriteFile(file, text + "[EndOfFile]\n");
  machine.Run(
      [] {
        std::vector<pid_t> writers;
        for (char name = 'a'; name < 'i'; ++name) {
          const std::string application = std::string("app_") + name;
          writers.push_back(StartRavctl({"trace", "level", "5", "--app", application}, "/" + application));
        }
        for (const pid_t writer : writers) {
          int status = -1;
          ::waitpid(writer, &status, 0);
          EXPECT_EQ(status, 0);
        }
      },
      FixtureRoot::kUsr);
  std::string expected = text + "[EndOfFile]\n";
  for (size_t at = expected.find("=\n"); at != std::string::npos; at = expected.find("=\n"))
    expected.insert(at + 1, "5");
  EXPECT_EQ(machine.ReadFile(file), expected);
}

TEST(TraceLevel, LeavesThePackageItsFile) {
  const ToolRoot machine;
  const std::string shipped = "; of the package\n[ravd]\nFileDebugLevel=0\nRingBufferSizeWeight=4\n\n[EndOfFile]\n";
  machine.WriteFile(kFiles + "ravd.ini", shipped);
  for (const char* level : {"5", "3"}) {
    EXPECT_EQ(machine.Json({"trace", "level", level})["warnings"].size(), *level == '5' ? 2U : 1U);
    EXPECT_EQ(machine.ReadFile(kFiles + "00-ravctl.ini"),
              std::string("[ravd]\nFileDebugLevel=") + level + "\nRingBufferSizeWeight=4\n\n[EndOfFile]\n");
    EXPECT_EQ(machine.ReadFile(kFiles + "ravd.ini"), shipped);
  }
  // But the daemon that runs follows the one with which it was started.
  machine.Remove(kFiles + "00-ravctl.ini");
  machine.WriteFile(kFiles + "global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=5\n[EndOfFile]\n");
  machine.WriteFile("/var/run/ravd.pid", "77\n");
  machine.WriteFile("/proc/77/comm", "ravd\n");
  machine.Json("trace level 2");
  EXPECT_THAT(machine.ReadFile(kFiles + "ravd.ini"), HasSubstr("\nFileDebugLevel=2\n"));
}
