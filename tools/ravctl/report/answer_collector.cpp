#include "ravctl/report/answer_collector.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <exception>
#include <optional>
#include <string_view>

#include "platform/descriptor_io.h"
#include "ravctl/base/error.h"
#include "ravctl/base/json_reader.h"

namespace ravctl {

namespace {

constexpr int kPipeSize = 1 << 20;

std::string ReasonIn(const std::string& answer) {
  std::string why;
  const std::optional<Json> object = ReadJson(answer, why);
  const Json error = object && object->is_object() ? object->value("error", Json()) : Json();
  return error.is_object() ? error["message"].get<std::string>() : "the answer breaks off";
}

}  // namespace

AnswerCollector::AnswerCollector(PageWriter& page) : m_Page(page) {
  const UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (null) ::dup2(null.Get(), STDERR_FILENO);
}

void AnswerCollector::Start(const std::string& id, const std::function<void(Output& out)>& write) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw SystemFailure("cannot collect the answers", "pipe", errno);
  Started started{id, UniqueFd(ends[0]), -1};
  const UniqueFd writer(ends[1]);
  ::fcntl(writer.Get(), F_SETPIPE_SZ, kPipeSize);  // as far as the system gives it
  started.child = ::fork();
  if (started.child < 0) throw SystemFailure("cannot collect the answers", "fork", errno);
  if (started.child == 0) ::_exit(::dup2(writer.Get(), STDOUT_FILENO) >= 0 && IsWritten(write) ? 0 : 1);
  m_Started.push_back(std::move(started));
}

// In the child; false when the answer is a failure.
bool AnswerCollector::IsWritten(const std::function<void(Output& out)>& write) const {
  OutputOptions options;
  options.json = true;
  Output out(options);
  out.SetRoot(m_Root);
  try {
    write(out);
    return true;
  } catch (const CommandError& error) {
    out.PrintError(static_cast<int>(error.Code()), error.what());
  } catch (const std::exception& error) {
    out.PrintError(static_cast<int>(ExitCode::kInternal), error.what());
  }
  return false;
}

void AnswerCollector::Collect() {
  for (const Started& started : m_Started) {
    const std::string head = TakeOver(started);
    int status = 0;
    ::waitpid(started.child, &status, 0);
    if (status != 0) m_Missing.push_back({{"answer", started.id}, {"reason", ReasonIn(head)}});
  }
  m_Count += m_Started.size();
  m_Started.clear();
}

// Returns its first piece, which is all of an answer that is a failure.
std::string AnswerCollector::TakeOver(const Started& started) {
  std::vector<char> bytes(kPipeSize);
  std::string head;
  m_Page.BeginAnswer(started.id);
  for (ssize_t got = 0; (got = ReadSome(started.reader.Get(), bytes.data(), bytes.size())) > 0;) {
    const std::string_view piece(bytes.data(), static_cast<size_t>(got));
    if (head.empty()) head = piece;
    m_Page.AddJson(piece);
  }
  return head;
}

}  // namespace ravctl
