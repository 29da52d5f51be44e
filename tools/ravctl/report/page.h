#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ravctl {

// Writes the page of `ravctl report`: one HTML file that needs no other and asks for none. page.html is its frame; the
// style and the scripts beside it are built into the tool, and the answers of the commands are put into it as data:
// JSON in script elements that no browser runs, from which the scripts draw everything.
//
// What the data hold comes from strangers. In their JSON every "<" is written "\u003c", so that no text ends its
// element, and the page's policy allows the style and the scripts of the page by their hashes and nothing else: no
// other script, no attribute of style, no request.
//
//   PageWriter page(fd, "machine.html");
//   page.BeginAnswer("doctor");
//   page.AddJson(json);
//   page.AddScripts();
//   page.BeginAnswer("trace-0");
//   page.AddJson(json);
//   page.End();
//
// The descriptor is borrowed. Throws CommandError (kNotWritten) when the page cannot be written. One thread.
class PageWriter {
 public:
  // name: how messages call the file. Writes what stands before the data.
  PageWriter(int fd, std::string name);
  PageWriter(const PageWriter&) = delete;
  PageWriter& operator=(const PageWriter&) = delete;

  // id: how the scripts call it, "trace-1". What is added until the next answer is its JSON, in pieces that may end
  // anywhere: one object, or one in each line; of valid UTF-8, as the tool's own writers make it. A large one becomes
  // several elements, between its lines: browsers take more and more time for the longer one.
  void BeginAnswer(std::string_view id);
  void AddJson(std::string_view json);
  // Answers that stand before the scripts are drawn at once, while the browser still reads what follows.
  void AddScripts();
  // What stands behind the data.
  void End();

  uint64_t Bytes() const { return m_Bytes; }

 private:
  void WriteFrame();
  void BeginElement();
  void EndElement();
  void WriteJson(std::string_view json);
  void Write(std::string_view text);
  void Flush();

  int m_Fd;
  std::string m_Name;
  std::string m_Frame;       // what of it is still to be written
  std::string m_Answer;      // its id, empty for none
  size_t m_ElementSize = 0;  // of the one that is open
  std::string m_Buffer;
  uint64_t m_Bytes = 0;
};

}  // namespace ravctl
