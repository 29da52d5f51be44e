#pragma once

#include <memory>
#include <string>

#include "platform/unique_fd.h"
#include "ravctl/tree/capture.h"

struct archive;

namespace ravctl {

// Writes a bundle to a new file that its owner alone can read. Until it is finished it lies beside its place, under a
// hidden name (".NAME.XXXXXX"), so that a bundle under its name is whole; what is not finished is removed with the
// object, and stays behind only when the process is killed. Failures are thrown as CommandError.
class BundleWriter {
 public:
  // The ending of the name tells the packing: .tar.gz, .tgz, .tar.zst or .tzst. A file that exists is left alone.
  explicit BundleWriter(std::string path);
  ~BundleWriter();
  BundleWriter(const BundleWriter&) = delete;
  BundleWriter& operator=(const BundleWriter&) = delete;

  void Add(const CapturedEntry& entry);
  // Returns the size of the file, which is on the disk then.
  uint64_t Finish();

 private:
  struct FreeArchive {
    void operator()(archive* each) const;
  };

  void Require(bool isDone, const std::string& what) const;
  void WriteData(const char* data, uint64_t size, const std::string& path);
  void WriteHole(uint64_t size, const std::string& path);

  std::string m_Path;
  std::string m_Temporary;
  UniqueFd m_File;
  std::unique_ptr<archive, FreeArchive> m_Archive;
  bool m_IsFinished = false;
};

}  // namespace ravctl
