#include "ravctl/base/json_reader.h"

#include <utility>
#include <vector>

namespace ravctl {

namespace {

using Json = nlohmann::ordered_json;

// Builds the value from the events of the parser; each handler tells whether to go on.
class Builder {
 public:
  explicit Builder(const JsonLimits& limits) : m_Limits(limits) {}

  const std::string& Why() const { return m_Why; }
  Json Take() { return std::move(m_Root); }

  bool null() { return Add(nullptr); }
  bool boolean(bool value) { return Add(value); }
  bool number_integer(int64_t value) { return Add(value); }
  bool number_unsigned(uint64_t value) { return Add(value); }
  bool number_float(double value, const std::string& /*text*/) { return Add(value); }
  bool string(std::string& value) { return Add(std::move(value)); }
  bool binary(Json::binary_t& /*value*/) { return Refuse("binary data"); }
  bool start_object(size_t /*elements*/) { return Open(Json::object()); }
  bool start_array(size_t /*elements*/) { return Open(Json::array()); }
  bool end_object() { return Close(); }
  bool end_array() { return Close(); }

  bool key(std::string& name) {
    if (m_Open.back()->size() >= m_Limits.keys) return Refuse("too many keys in one object");
    m_Key = std::move(name);
    return true;
  }

  bool parse_error(size_t position, const std::string& /*last*/, const Json::exception& /*error*/) {
    return Refuse("it is no JSON at byte " + std::to_string(position));
  }

 private:
  bool Refuse(std::string why) {
    m_Why = std::move(why);
    return false;
  }

  // Where the value stands now; null when there is no more room.
  Json* Place(Json value) {
    if (++m_Values > m_Limits.values) return nullptr;
    if (m_Open.empty()) return &(m_Root = std::move(value));
    Json& parent = *m_Open.back();
    if (parent.is_object()) return &(parent[m_Key] = std::move(value));
    parent.push_back(std::move(value));
    return &parent.back();
  }

  bool Add(Json value) { return Place(std::move(value)) != nullptr || Refuse("too many values"); }

  bool Open(Json value) {
    if (m_Open.size() >= m_Limits.depth) return Refuse("it nests too deep");
    Json* place = Place(std::move(value));
    if (place == nullptr) return Refuse("too many values");
    // What is open stays where it is: its parent grows again only when it is closed.
    m_Open.push_back(place);
    return true;
  }

  bool Close() {
    m_Open.pop_back();
    return true;
  }

  const JsonLimits& m_Limits;
  std::string m_Why;
  Json m_Root;
  std::vector<Json*> m_Open;
  std::string m_Key;
  size_t m_Values = 0;
};

}  // namespace

std::optional<nlohmann::ordered_json> ReadJson(std::string_view text, std::string& why, const JsonLimits& limits) {
  if (text.size() > limits.size) {
    why = "it is too large";
    return std::nullopt;
  }
  Builder builder(limits);
  if (Json::sax_parse(text, &builder)) return builder.Take();
  why = builder.Why();
  return std::nullopt;
}

}  // namespace ravctl
