#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ravctl {

// What is wrong at one place of a registry file.
struct StoreFinding {
  enum class Health {
    kNote,    // read as it is meant; the next save writes it in another way
    kDamage,  // something is lost, or is read as something else
  };

  size_t line = 0;  // from 1 on; 0: the file as a whole
  Health health = Health::kDamage;
  std::string code;    // "cut-end", "no-marker"...; an interface for scripts
  std::string key;     // the path of the key that is open there
  std::string detail;  // for a reader
};

// A registry file as the library reads it, with everything told that the library passes over in silence.
struct StoreCheck {
  size_t keys = 0;
  size_t values = 0;          // that are read
  bool hasValueLine = false;  // what makes a file good enough for a start
  std::vector<StoreFinding> findings;
  size_t unlisted = 0;  // findings beyond kMaxFindings, all of them damage

  size_t Damage() const;
  bool IsWhole() const { return hasValueLine && Damage() == 0; }
};

inline constexpr size_t kMaxFindings = 1000;

// Pure; the bytes may be anything.
StoreCheck CheckStore(std::string_view bytes);

}  // namespace ravctl
