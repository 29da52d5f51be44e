#include "ravctl/line/completion.h"

#include "ravctl/base/text.h"

namespace ravctl {

namespace {

// A word that the shell offers. What the tool lists is asked for when it is wanted.
struct Offer {
  std::string word;
  std::string meaning;
};
using Offers = std::vector<Offer>;

// What may stand at a place of the command line.
struct Place {
  std::string at;                  // "trace show"; of an option "trace show --part"
  Offers offers = {};              // unless they are asked for:
  std::string asked = {};          // "pci -o driver"
  bool isList = false;             // words with commas between them
  const Option* option = nullptr;  // whose value it is
};

constexpr std::string_view kColumnOption = "-o,--columns";

Offers OffersOf(const std::vector<std::string>& values) {
  Offers offers;
  for (const std::string& value : values)
    offers.push_back({value, ""});
  return offers;
}

Offers OffersOf(const std::vector<const Field*>& columns) {
  Offers offers;
  for (const Field* field : columns)
    offers.push_back({std::string(field->key), std::string(field->meaning)});
  return offers;
}

void AddOptions(const Command& command, Place& place) {
  for (const Option& option : command.Options()) {
    if (option.IsWord()) {
      if (!option.offered.empty()) place.asked = option.offered;
      if (option.check) place.offers = OffersOf(option.check.values);
      continue;
    }
    for (const std::string& name : SplitList(option.names))
      place.offers.push_back({name, option.meaning});
  }
}

// What may follow the words of the command.
Place WordsAt(const Command& root, const Command& command) {
  Place place{command.FullName()};
  for (const Command& below : command.Below())
    place.offers.push_back({below.Name(), below.Text().summary});
  AddOptions(command, place);
  if (&command != &root) AddOptions(root, place);
  return place;
}

// The places behind options of the command whose values are known.
std::vector<Place> ValuesAt(const Command& root, const Command& command) {
  std::vector<Place> places;
  for (const Command* owner : {&command, &root}) {
    for (const Option& option : owner->Options()) {
      const bool isColumns = option.names == kColumnOption;
      Place value{"", {}, option.offered, isColumns, &option};
      value.offers = isColumns ? OffersOf(command.Columns()) : OffersOf(option.check.values);
      if (option.IsWord() || (value.offers.empty() && value.asked.empty())) continue;
      for (const std::string& name : SplitList(option.names)) {
        value.at = command.FullName() + " " + name;
        places.push_back(value);
      }
    }
    if (&command == &root) break;
  }
  return places;
}

template <typename Visit>
void ForEachCommand(const Command& command, const Visit& visit) {
  visit(command);
  for (const Command& below : command.Below())
    ForEachCommand(below, visit);
}

// 'it'\''s'
std::string Quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char character : text)
    quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
  return quoted + "'";
}

// "daemon"|"daemon status"|...
std::string CommandPattern(const Command& root) {
  std::string names;
  ForEachCommand(root, [&](const Command& command) {
    if (&command != &root) names += (names.empty() ? "\"" : "|\"") + command.FullName() + "\"";
  });
  return names;
}

// A branch of a case of bash or zsh: it sets the array words, or from and list.
std::string Branch(const Place& place, std::string (*word)(const Offer& offer)) {
  std::string text = "    \"" + place.at + "\") ";
  for (const Offer& offer : place.offers)
    text += (&offer == &place.offers.front() ? "words=(" : " ") + word(offer);
  if (!place.offers.empty()) text += ") ";
  if (!place.asked.empty()) text += "from=\"" + place.asked + "\" ";
  if (place.isList) text += "list=1 ";
  if (place.option != nullptr) text += "isvalue=1 ";
  return text + ";;\n";
}

std::string WordOfBash(const Offer& offer) {
  return Quoted(offer.word);
}

// 'word:meaning'
std::string WordOfZsh(const Offer& offer) {
  std::string text;
  for (const char character : offer.word)
    text += character == ':' ? std::string("\\:") : std::string(1, character);
  return Quoted(offer.meaning.empty() ? text : text + ":" + offer.meaning);
}

// The branches for the options' values and, below a default one, those for the commands.
std::string Branches(const Command& root, std::string (*word)(const Offer& offer)) {
  std::string values, commands;
  ForEachCommand(root, [&](const Command& command) {
    for (const Place& place : ValuesAt(root, command))
      values += Branch(place, word);
    commands += Branch(WordsAt(root, command), word);
  });
  return "  case \"$place $previous\" in\n" + values + "    *) case \"$place\" in\n" + commands +
         "    esac ;;\n  esac\n";
}

std::string BashText(const Command& root) {
  return R"(# bash completion for ravctl; made by: ravctl completion
_ravctl() {
  local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD-1]}" place="" word from="" list="" isvalue=""
  local -a words=() files=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ "$word" == -* ]] && continue
    case "${place:+$place }$word" in
      )" +
         CommandPattern(root) + R"() place="${place:+$place }$word" ;;
    esac
  done
)" + Branches(root, WordOfBash) +
         R"(  if [[ -n "$from" && "$current" != -* ]]; then
    read -ra from <<<"$from"
    mapfile -t -O ${#words[@]} words < <("${COMP_WORDS[0]}" "${from[@]}" --csv --no-headings 2>/dev/null | tr -d '\r' | sort -u)
  fi
  [[ -n "$list" && "$current" == *[,+]* ]] && list="${current%"${current##*[,+]}"}" || list=""
  [[ "$current" == -* || -n "$isvalue" || -n "$from" ]] || mapfile -t files < <(compgen -f -- "$current")
  COMPREPLY=()
  for word in "${words[@]}"; do
    [[ -n "$word" && "$list$word" == "$current"* ]] && COMPREPLY+=("$list$word")
  done
  COMPREPLY+=("${files[@]}")
}
complete -o filenames -F _ravctl ravctl
)";
}

std::string ZshText(const Command& root) {
  return R"(#compdef ravctl
# zsh completion for ravctl; made by: ravctl completion zsh
_ravctl() {
  local current="${words[CURRENT]}" previous="${words[CURRENT-1]}" tool="${words[1]}" place="" word from="" list="" isvalue=""
  local -a given=("${(@)words[2,CURRENT-1]}") found
  for word in "${given[@]}"; do
    [[ "$word" == -* ]] && continue
    case "${place:+$place }$word" in
      )" +
         CommandPattern(root) + R"() place="${place:+$place }$word" ;;
    esac
  done
  local -a words=()
)" + Branches(root, WordOfZsh) +
         R"(  if [[ -n "$from" && "$current" != -* ]]; then
    words+=("${(@f)$("$tool" ${=from} --csv --no-headings 2>/dev/null | tr -d '\r' | sort -u | sed 's/[\\:]/\\&/g')}")
  fi
  found=("${(@)words:#}")
  [[ -n "$list" ]] && compset -P '*[,+]'
  _describe ravctl found
  [[ "$current" == -* || -n "$isvalue" ]] || _files
}
if [[ "$funcstack[1]" == _ravctl ]]; then _ravctl "$@"; else compdef _ravctl ravctl; fi
)";
}

// complete -c ravctl -n 'PLACE' ... -a WORD -d MEANING
std::string FishText(const Command& root) {
  std::string text = R"(# fish completion for ravctl; made by: ravctl completion fish
function __ravctl_at
  set -l place
  for word in (commandline -opc)[2..]
    string match -q -- '-*' $word; and continue
    contains -- (string join ' ' $place $word) $__ravctl_places; and set place $place $word
  end
  test (string join ' ' x $place) = (string trim -r -- "x $argv")
end
function __ravctl_ask
  set -l tool (commandline -opc)[1]
  $tool $argv --csv --no-headings 2>/dev/null | string trim -c \r | sort -u
end
function __ravctl_list
  set -l front (string match -r '.*[,+]' -- (commandline -ct))
  printf "$front%s\n" $argv
end
)";
  std::string places, rows;
  ForEachCommand(root, [&](const Command& command) {
    const std::string at = "complete -c ravctl -n '__ravctl_at " + command.FullName() + "'";
    if (&command != &root) places += " '" + command.FullName() + "'";
    for (const Command& below : command.Below())
      rows += at + " -a " + below.Name() + " -d " + Quoted(below.Text().summary) + "\n";
    const Place words = WordsAt(root, command);
    if (!words.asked.empty()) rows += at + " -a '(__ravctl_ask " + words.asked + ")'\n";
    const std::vector<Place> values = ValuesAt(root, command);
    for (const Command* owner : {&command, &root}) {
      for (const Option& option : owner->Options()) {
        if (option.IsWord()) continue;
        rows += at;
        for (const std::string& name : SplitList(option.names))
          rows += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
        rows += " -d " + Quoted(option.meaning);
        if (!option.IsFlag()) rows += " -r";
        for (const Place& value : values) {
          if (value.option != &option) continue;
          std::string list;
          for (const Offer& offer : value.offers)
            list += " " + offer.word;
          if (!value.asked.empty()) list += " (__ravctl_ask " + value.asked + ")";
          rows += " -f -a " + Quoted(value.isList ? "(__ravctl_list" + list + ")" : list.substr(1));
          break;
        }
        rows += "\n";
      }
      if (&command == &root) break;
    }
  });
  return text + "set -g __ravctl_places" + places + "\n" + rows;
}

}  // namespace

std::string CompletionText(const Command& root, const std::string& shell) {
  return shell == "zsh" ? ZshText(root) : shell == "fish" ? FishText(root) : BashText(root);
}

}  // namespace ravctl
