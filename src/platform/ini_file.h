#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/export.h"

// INI profile files: two static operations that work on a file directly, and an object that binds a file name to typed
// getters and setters, enumeration, and copying and deletion of sections. docs/ini-files.md describes the format.
//
// Nothing is cached: every call opens, reads or edits, and closes the file. Writers of the same file wait for one
// another, about a second; a reader finds the file before or after an edit. The static operations may be called by any
// thread; an object belongs to one thread at a time, since its operations share its buffers.
//
// Failures: a read that finds no file, section or key, or no memory, gives the default. A write gives false (0) when
// the file cannot be opened or edited and when there is nothing to delete, and leaves the file as it was. Operations on
// an object without a file name, with a null section or key, or that is not open do nothing and give their default, ""
// or false.
//
// Names and values are written as they are. What a reader cuts off or skips does not come back: white space around a
// name or value, ';' and what follows it, line breaks, an '=' in a key, a key that begins with '[' or ';', and what
// lies beyond the 1023rd character of a line. A value that is empty reads as the default.
class RAVD_EXPORT CIniFile {
 public:
  // Without a file name and not open.
  CIniFile() = default;

  // Copies a value into buffer. Result: the number of characters stored without the closing NUL.
  // key null: the names of the section's keys, each followed by a NUL, with one more NUL behind the last; section null:
  // the names of all sections likewise. An empty name would end that list and is left out. The result counts the NULs
  // of the names.
  // A value that does not fit is cut and gives size - 1, a list that does not fit is cut and gives size - 2 and still
  // ends with two NULs; a value that just fits gives the same numbers. The file is not read when size is 2 or less.
  // Nothing found, or an empty value: the default, cut at size - 1, when section, key and default are all given, else
  // "" and 0. Nothing is written to buffer, and 0 returned, when buffer or fileName is null or size is 0.
  // defaultValue must not lie in buffer, whose first byte is cleared before anything else.
  static uint32_t GetPrivateProfileString(const char* section, const char* key, const char* defaultValue, char* buffer,
                                          uint32_t size, const char* fileName);

  // Sets a key. value null: deletes the key; key null: deletes the whole section. Result: 1 = done, 0 = failed or
  // nothing to delete. A missing file counts as done for a deletion and is otherwise created with the mode 0644; so is
  // what the name points to when it is a dangling link. An edit that changes nothing writes nothing. What is no regular
  // file is refused.
  //
  // The new file is written beside the old one, brought to the disk and renamed: whatever
  // happens the old file or the new one is there, with its owner, mode and extended attributes. In place, with a moment
  // in which a kill or a power failure leaves a mixture of both, only where a rename cannot be.
  static int WritePrivateProfileString(const char* section, const char* key, const char* value, const char* fileName);

  // Keeps a copy; null clears the name. An open object stays open.
  void SetFilename(const char* name);
  // "" when there is none. Valid until the next SetFilename or Open with a name.
  const char* GetFileName() const;
  // Result: whether the object is open now. mustExist: only if the file can be opened for reading. With a name, as
  // SetFilename first:
  bool Open(bool mustExist);
  bool Open(const char* name, bool mustExist = false);
  // As the last Open or Close left it.
  bool IsOpen() const { return isOpen; }
  // The getters and setters refuse from now on. Touches no file.
  void Close() { isOpen = false; }

  // False with the default in out when the default is what there is and it is longer than 64509 characters. out is
  // unchanged when the object or the arguments are not usable.
  bool GetString(std::string& out, const char* section, const char* key, const char* defaultValue) const;
  // The text, valid until the next call, or defaultValue itself on failure. defaultValue must not be an earlier result.
  const char* GetString(const char* section, const char* key, const char* defaultValue);
  // "16", "0x10" and "020" => 16. Reading stops at the first character that does not fit, so "x" => 0; a negative
  // number comes back as its two's complement, as the signed SetNumber wrote it; what is out of range becomes the
  // nearest number in range.
  uint32_t GetNumber(const char* section, const char* key, uint32_t defaultValue) const;

  // Sets a text or a number in decimal; value null deletes the key. True for the result 1 of
  // WritePrivateProfileString:
  bool SetString(const char* section, const char* key, const char* value) const;
  bool SetNumber(const char* section, const char* key, uint32_t value) const;
  bool SetNumber(const char* section, const char* key, int32_t value) const;
  // Deletes a key or a section with all its keys. True for the result 1 of WritePrivateProfileString:
  bool DeleteKey(const char* section, const char* key) const;
  bool DeleteSection(const char* section) const;
  // Writes every key of the source to the target, in one edit. Result: whether the object is open; the edit is not
  // judged.
  bool CopySection(const char* source, const char* target) const;

  // The first name of a new enumeration: of the keys of a section, or of the sections for null. "" when there is none
  // or the names take more than 64509 characters. Valid until the next GetEnum.
  const char* GetEnum(const char* section);
  // The next name, "" at the end and from then on. Valid until the next GetEnum.
  const char* GetNextEnum();
  // All names, however many, appended. These leave the enumeration above alone. Result: whether there was a name:
  bool GetSections(std::vector<std::string>& sections) const;
  bool GetEnums(std::vector<std::string>& keys, const char* section) const;

  // Nothing is buffered, so nothing is written. An open object traces a line.
  void Flush() const;

 private:
  bool IsUsable() const { return isOpen && fileName != nullptr; }
  bool AppendNames(std::vector<std::string>& names, const char* section) const;

  std::unique_ptr<char[]> fileName;
  std::unique_ptr<char[]> stringBuffer;  // result of the GetString that returns a pointer
  std::unique_ptr<char[]> enumBuffer;    // names of the last enumeration, each followed by a NUL, then an empty one
  const char* enumCursor = nullptr;      // current name in enumBuffer
  uint32_t stringBufferSize = 0;
  uint32_t enumBufferSize = 0;
  bool isOpen = false;
};
