#include "ravctl/registry/store_search.h"

#include <fnmatch.h>

#include <algorithm>
#include <initializer_list>

namespace ravctl {

namespace {

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string Lowered(std::string text) {
  std::ranges::transform(text, text.begin(), Lower);
  return text;
}

bool MatchesPattern(std::string text, std::string pattern, bool ignoresCase) {
  if (ignoresCase) {
    text = Lowered(std::move(text));
    pattern = Lowered(std::move(pattern));
  }
  if (pattern.find_first_of("*?[") == std::string::npos) return text.find(pattern) != std::string::npos;
  return ::fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

class Search {
 public:
  Search(const StoreQuery& query, const StoreHits& hits) : m_Query(query), m_Hits(hits) {}

  void Key(const StorePath& path, const StoreKey& key) {
    for (const auto& [name, value] : key.values) {
      if (IsWantedType(value) && IsWanted({{"name", name}, {"value", ValueText(value)}})) {
        m_Hits.onValue(path, name, value);
      }
    }
    for (const auto& [name, below] : key.keys) {
      StorePath longer = path;
      longer.push_back(name);
      if (m_Query.type.empty() && IsWanted({{"key", name}})) m_Hits.onKey(longer, below);
      Key(longer, below);
    }
  }

 private:
  bool IsWantedType(const StoreValue& value) const {
    return m_Query.type.empty() || TypeText(value.type) == m_Query.type;
  }

  struct Text {
    const char* place;
    const std::string& text;
  };
  using Texts = std::initializer_list<Text>;

  bool IsLookedAt(const Text& text) const {
    return m_Query.places.empty() || std::ranges::find(m_Query.places, text.place) != m_Query.places.end();
  }

  // Only entries that are looked at count, inverted or not.
  bool IsWanted(Texts texts) const {
    if (std::ranges::none_of(texts, [this](const Text& text) { return IsLookedAt(text); })) return false;
    const bool matches = MatchesAny(texts, m_Query.patterns) && !MatchesAny(texts, m_Query.notPatterns);
    return matches != m_Query.isInverted;
  }

  bool MatchesAny(Texts texts, const std::vector<std::string>& patterns) const {
    return std::ranges::any_of(texts, [&](const Text& text) {
      return IsLookedAt(text) && std::ranges::any_of(patterns, [&](const std::string& pattern) {
               return MatchesPattern(text.text, pattern, m_Query.ignoresCase);
             });
    });
  }

  const StoreQuery& m_Query;
  const StoreHits& m_Hits;
};

}  // namespace

void SearchStore(const StoreQuery& query, const StorePath& path, const StoreKey& key, const StoreHits& hits) {
  Search(query, hits).Key(path, key);
}

}  // namespace ravctl
