// The module watch: what it tells of a machine that changes while it looks, and while nobody did.

#include "watch/watch.h"

#include <sys/socket.h>
#include <sys/un.h>

#include "platform/unique_fd.h"
#include "support/daemon_root.h"

namespace {

// What the program answers stands in /answer.
struct Told {
  std::mutex mutex;
  std::vector<std::string> texts;

  Watch::Teller Teller() {
    return [this](const MachineChange&, const std::string& text) {
      const std::lock_guard<std::mutex> lock(mutex);
      texts.push_back(text);
    };
  }
  std::vector<std::string> Texts() {
    const std::lock_guard<std::mutex> lock(mutex);
    return texts;
  }
};

}  // namespace

TEST(Watch, TellsWhatChangedAlsoAcrossRestarts) {
  const FixtureRoot root;
  root.MakeDirectory("/etc/pelrix");
  root.WriteFile("/program", "#!/bin/sh\nread -r x </counter; echo x$x >/counter; cat /$1\n", 0755);
  root.WriteFile("/counter", "\n");
  root.WriteFile("/volumes", "volume\t/v\tmountpoint=/v\tanswering=1\tsize=100\tavailable=50\nend\n");
  root.WriteFile("/hardware",
                 "scan\tpci\tseconds=1\ndrive\tS1\tdevice=sda\tslot=3\tfirmware=A\ndimm\tA1\tlocator=A1\nend\n");
  root.MakeDirectory("/sys/block");
  root.MakeDirectory("/sys/bus/pci/devices");
  root.Run(FixtureRoot::kUsr, [] {
    WatchSettings settings;
    settings.program = "/program";
    settings.intervalSeconds = 1;
    settings.volumeSeconds = 1;
    Told told;
    {
      Watch watch(settings, told.Teller());
      watch.Start();
      // Hardware, volumes, and once more: what came before is known by then.
      ASSERT_TRUE(WaitUntil([] { return TextOf("/counter").size() > 3; }));
      EXPECT_TRUE(told.Texts().empty());  // the first look at all is no change
      // A device comes, and so the hardware is looked at.
      WriteWholeFile("/hardware", "drive\tS1\tdevice=sdb\tslot=3\tfirmware=B\ndimm\tA1\tlocator=A1\nend\n");
      WriteWholeFile("/volumes", "volume\t/v\tmountpoint=/v\tanswering=1\tsize=100\tavailable=4\nend\n");
      std::filesystem::create_directory("/sys/block/sdb");
      ASSERT_TRUE(WaitUntil([&] { return told.Texts().size() == 3; }));
    }
    EXPECT_THAT(told.Texts(), ::testing::UnorderedElementsAre("drive sdb (slot 3): device \"sda\" => \"sdb\"",
                                                              "drive sdb (slot 3): firmware \"A\" => \"B\"",
                                                              "mount /v: full \"0\" => \"1\""));
    told.texts.clear();
    WriteWholeFile("/hardware", "drive\tS1\tdevice=sdb\tslot=3\tfirmware=B\ndimm\tB1\tlocator=B1\nend\n");
    {
      Watch watch(settings, told.Teller());
      watch.Start();
      ASSERT_TRUE(WaitUntil([&] { return told.Texts().size() == 2; }));
    }
    EXPECT_EQ(told.Texts(), (std::vector<std::string>{"dimm A1 is gone", "dimm B1 is new"}));
    WriteWholeFile("/program", "#!/bin/sh\nexec sleep 1000\n");
    Watch watch(settings, told.Teller());  // whose end comes while the program hangs
    watch.Start();
  });
}

TEST(Watch, JournalGetsFields) {
  const FixtureRoot root;
  root.MakeDirectory("/run/systemd/journal");
  root.Run([] {
    const UniqueFd journal(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
    ASSERT_EQ(::bind(journal.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const MachineChange change{MachineChange::kChanged, "drive", "S1", "sda", "3", "firmware", "A\nB", "C"};
    Watch::Tell(change, Watch::Describe(change));
    char entry[4096] = {};
    ASSERT_GT(::recv(journal.Get(), entry, sizeof entry - 1, MSG_DONTWAIT), 0);
    const std::string text(entry, sizeof entry);
    for (const char* field : {"RAVD_KIND=drive\n", "RAVD_CHANGE=changed\n", "RAVD_DEVICE=sda\n", "RAVD_SLOT=3\n",
                              "RAVD_FIELD=firmware\n", "RAVD_AFTER=C\n", "PRIORITY=5\n", "SYSLOG_IDENTIFIER=ravd\n"})
      EXPECT_THAT(text, ::testing::HasSubstr(field));
    EXPECT_THAT(text, ::testing::HasSubstr(std::string("RAVD_BEFORE\n\3\0\0\0\0\0\0\0A\nB\n", 24)));  // its binary form
  });
}

TEST(FlapFilter, TellsAFewThenWaitsForQuiet) {
  FlapFilter filter;
  using Verdict = FlapFilter::Verdict;
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(filter.Take("a", i), Verdict::kTell);
  EXPECT_EQ(filter.Take("b", 3), Verdict::kTell);
  EXPECT_EQ(filter.Take("a", 3), Verdict::kLast);
  for (int64_t now = 4; now < 4 + 10 * 1800; now += 1800)
    EXPECT_EQ(filter.Take("a", now), Verdict::kSilent);
  EXPECT_EQ(filter.Take("a", 100'000), Verdict::kTell);
  // Seldom is no flapping.
  for (int64_t now = 200'000; now < 300'000; now += 1300)
    EXPECT_NE(filter.Take("c", now), Verdict::kSilent);
}
