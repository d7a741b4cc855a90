#include "traffic/filter.h"

#include <fmt/core.h>
#include <fnmatch.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "common/printable.h"
#include "msgapi/messages.h"

namespace traffic {
namespace {

using flight::Kind;
using flight::Loss;

constexpr uint64_t kSecond_ns = 1'000'000'000;
// Nobody nests parentheses deeper than by mistake, and each level takes stack.
constexpr int kMostDepth = 64;

enum class Compare { kEqual, kUnequal, kLess, kLessEqual, kGreater, kGreaterEqual };

struct Range {
  uint64_t first;
  uint64_t last;
};

// What a message type may be: a number in a range, or a name of the catalogue that fits a pattern.
struct TypeValue {
  Range numbers{1, 0};
  std::string pattern;
};

template <typename T>
std::optional<T> number(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
    base = 16;
  }
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<Range> range(std::string_view text) {
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos) {
    const auto value = number<uint64_t>(text);
    if (!value) return std::nullopt;
    return Range{*value, *value};
  }
  const auto first = number<uint64_t>(text.substr(0, dash));
  const auto last = number<uint64_t>(text.substr(dash + 1));
  if (!first || !last || *first > *last) return std::nullopt;
  return Range{*first, *last};
}

bool in(const Range &range, uint64_t value) {
  return value >= range.first && value <= range.last;
}

bool fits(const std::string &pattern, const std::string &name) {
  return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

// "queue-full" for "queue full".
std::string word_of(std::string_view text) {
  std::string word(text);
  std::replace(word.begin(), word.end(), ' ', '-');
  return word;
}

bool is_event(uint32_t type) {
  return type >> 8 == ORP_MSG_EVENT_PAGE;
}

// "-5s", "14:30", "2026-03-01T14:30:00.5" as ns since 1970.
std::optional<uint64_t> point_in_time(std::string_view text, uint64_t now_ns) {
  if (text.starts_with('-')) {
    constexpr std::array<std::pair<std::string_view, uint64_t>, 5> kUnits{
        {{"ms", kSecond_ns / 1000},
         {"s", kSecond_ns},
         {"min", 60 * kSecond_ns},
         {"h", 3600 * kSecond_ns},
         {"d", 86400 * kSecond_ns}}};
    text.remove_prefix(1);
    const size_t digits = text.find_first_not_of("0123456789");
    const auto count = number<uint32_t>(text.substr(0, digits));
    if (!count || digits == std::string_view::npos) return std::nullopt;
    for (const auto &[unit, length_ns] : kUnits) {
      if (text.substr(digits) != unit) continue;
      if (*count > now_ns / length_ns) return 0;
      return now_ns - *count * length_ns;
    }
    return std::nullopt;
  }

  std::string whole(text);
  uint64_t fraction_ns = 0;
  if (const size_t dot = whole.find('.'); dot != std::string::npos) {
    std::string digits = whole.substr(dot + 1);
    if (digits.empty() || digits.size() > 9) return std::nullopt;
    digits.resize(9, '0');
    const auto value = number<uint32_t>(digits);
    if (!value || digits.starts_with("0x")) return std::nullopt;
    fraction_ns = *value;
    whole.resize(dot);
  }
  const time_t now = static_cast<time_t>(now_ns / kSecond_ns);
  for (const char *format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
    tm parts{};
    if (format[1] == 'H') {
      ::gmtime_r(&now, &parts);
      parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
    }
    const char *end = ::strptime(whole.c_str(), format, &parts);
    if (end == nullptr || *end != '\0') continue;
    const time_t seconds = ::timegm(&parts);
    if (seconds < 0) return std::nullopt;
    return static_cast<uint64_t>(seconds) * kSecond_ns + fraction_ns;
  }
  return std::nullopt;
}

}  // namespace

struct Filter::Node {
  enum class What {
    kAnd,
    kOr,
    kNot,
    kType,
    kEvent,
    kFrom,
    kTo,
    kApp,
    kData,
    kLength,
    kBody,
    kKind,
    kLoss,
    kSince,
    kUntil,
    kAnswer,
    kRequest,
  };

  What what;
  std::vector<std::unique_ptr<Node>> parts;
  Compare compare = Compare::kEqual;
  std::vector<TypeValue> types;
  std::vector<Range> ranges;
  std::vector<std::string> texts;
  uint64_t time_ns = 0;
  const catalogue::Catalogue *catalogue = nullptr;

  bool holds(const Event &event, const Model &model) const;
  bool names_kind() const {
    return what == What::kKind || std::any_of(parts.begin(), parts.end(),
                                              [](const auto &part) { return part->names_kind(); });
  }

 private:
  bool type_fits(uint32_t type) const;
  bool name_fits(ClientId id, const Model &model) const;
  bool number_fits(uint64_t value) const;
};

namespace {

using Node = Filter::Node;
using What = Filter::Node::What;

class Parser {
 public:
  Parser(std::string_view text, const catalogue::Catalogue &catalogue, uint64_t now_ns)
      : rest_(text), text_(text), catalogue_(&catalogue), now_ns_(now_ns) {}

  std::unique_ptr<Node> parse() {
    if (peek().empty()) return nullptr;
    std::unique_ptr<Node> whole = either();
    if (!peek().empty()) fail("this does not belong here");
    return whole;
  }

 private:
  [[noreturn]] void fail(const std::string &why) {
    const std::string_view at = peek();
    const size_t column = text_.size() - rest_.size() + 1;
    throw FilterError(
        fmt::format("filter, column {}: {}{}", column, why,
                    at.empty() ? " (the filter ends here)" : ": '" + servers::printable(at) + "'"));
  }

  // The next word, "(" or ")"; empty at the end.
  std::string_view peek() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\n"), rest_.size()));
    if (rest_.empty()) return {};
    if (rest_[0] == '(' || rest_[0] == ')') return rest_.substr(0, 1);
    bool quoted = false;
    size_t size = 0;
    for (; size < rest_.size(); ++size) {
      const char c = rest_[size];
      if (c == '"') quoted = !quoted;
      if (!quoted && std::strchr(" \t\n()", c) != nullptr) break;
    }
    return rest_.substr(0, size);
  }
  void advance(std::string_view word) { rest_.remove_prefix(word.size()); }
  bool accept(std::string_view word) {
    if (peek() != word) return false;
    advance(word);
    return true;
  }

  std::unique_ptr<Node> joined(What what, std::vector<std::unique_ptr<Node>> parts) {
    if (parts.size() == 1) return std::move(parts.front());
    auto node = std::make_unique<Node>();
    node->what = what;
    node->parts = std::move(parts);
    return node;
  }

  std::unique_ptr<Node> either() {
    if (++depth_ > kMostDepth) fail("too many parentheses");
    std::vector<std::unique_ptr<Node>> parts;
    do {
      parts.push_back(all());
    } while (accept("or"));
    --depth_;
    return joined(What::kOr, std::move(parts));
  }

  std::unique_ptr<Node> all() {
    std::vector<std::unique_ptr<Node>> parts;
    do {
      parts.push_back(one());
    } while (accept("and") || !(peek().empty() || peek() == "or" || peek() == ")"));
    return joined(What::kAnd, std::move(parts));
  }

  std::unique_ptr<Node> one() {
    bool negated = false;
    while (accept("not")) negated = !negated;
    std::unique_ptr<Node> node;
    if (accept("(")) {
      node = either();
      if (!accept(")")) fail("a parenthesis is not closed");
    } else {
      node = term();
    }
    if (!negated) return node;
    std::vector<std::unique_ptr<Node>> parts;
    parts.push_back(std::move(node));
    auto opposite = std::make_unique<Node>();
    opposite->what = What::kNot;
    opposite->parts = std::move(parts);
    return opposite;
  }

  std::unique_ptr<Node> term() {
    const std::string_view word = peek();
    if (word.empty() || word == "and" || word == "or" || word == ")") fail("a term is missing");
    auto node = std::make_unique<Node>();
    node->catalogue = catalogue_;
    if (alone(word, node.get())) {
      advance(word);
      return node;
    }
    const size_t key_end = word.find_first_of("=!<>");
    if (key_end == std::string_view::npos) fail("this is no term; KEY=VALUE is");
    const std::string_view key = word.substr(0, key_end);
    std::string_view value = word.substr(key_end);
    node->compare = comparison(&value);
    std::string plain(value);
    std::erase(plain, '"');
    fill(node.get(), key, plain);
    advance(word);
    return node;
  }

  static bool alone(std::string_view word, Node *node) {
    if (word == "lost") {
      node->what = What::kLoss;
    } else if (word == "event") {
      node->what = What::kEvent;
    } else if (word == "answer") {
      node->what = What::kAnswer;
    } else if (word == "request") {
      node->what = What::kRequest;
    } else {
      return false;
    }
    return true;
  }

  Compare comparison(std::string_view *value) {
    constexpr std::array<std::pair<std::string_view, Compare>, 6> kSigns{
        {{"!=", Compare::kUnequal},
         {"<=", Compare::kLessEqual},
         {">=", Compare::kGreaterEqual},
         {"=", Compare::kEqual},
         {"<", Compare::kLess},
         {">", Compare::kGreater}}};
    for (const auto &[sign, compare] : kSigns) {
      if (!value->starts_with(sign)) continue;
      value->remove_prefix(sign.size());
      if (value->empty()) fail("the value is missing");
      return compare;
    }
    fail("a comparison is one of = != < <= > >=");
  }

  void fill(Node *node, std::string_view key, const std::string &value) {
    const bool ordered = node->compare != Compare::kEqual && node->compare != Compare::kUnequal;
    if (ordered && key != "data" && key != "length")
      fail("this can only be compared with = and !=");
    if (key == "type" || key == "event") {
      node->what = key == "type" ? What::kType : What::kEvent;
      each(value, [&](const std::string &item) { node->types.push_back(type(item)); });
    } else if (key == "from" || key == "to" || key == "app") {
      node->what = key == "from" ? What::kFrom : key == "to" ? What::kTo : What::kApp;
      each(value, [&](const std::string &item) { node->texts.push_back(item); });
    } else if (key == "data" || key == "length") {
      node->what = key == "data" ? What::kData : What::kLength;
      each(value, [&](const std::string &item) {
        const auto numbers = range(item);
        if (!numbers) fail("this is no number and no range");
        if (ordered && numbers->first != numbers->last) fail("a range has no order");
        node->ranges.push_back(*numbers);
      });
      if (ordered && node->ranges.size() != 1) fail("a list has no order");
    } else if (key == "body") {
      node->what = What::kBody;
      node->texts.push_back(value);
    } else if (key == "kind") {
      node->what = What::kKind;
      each(value, [&](const std::string &item) { node->ranges.push_back(kind(item)); });
    } else if (key == "loss") {
      node->what = What::kLoss;
      each(value, [&](const std::string &item) { node->ranges.push_back(loss(item)); });
    } else if (key == "since" || key == "until") {
      node->what = key == "since" ? What::kSince : What::kUntil;
      const auto time_ns = point_in_time(value, now_ns_);
      if (!time_ns) fail("this is no time; -5s, 14:30:05 and 2026-03-01T14:30:05 are");
      node->time_ns = *time_ns;
    } else {
      fail(
          "there is no such key; type, event, from, to, app, data, length, body, kind, loss, since "
          "and until are");
    }
  }

  template <typename Use>
  void each(const std::string &list, Use use) {
    size_t begin = 0;
    for (;;) {
      const size_t comma = std::min(list.find(',', begin), list.size());
      if (comma == begin) fail("a value of the list is missing");
      use(list.substr(begin, comma - begin));
      if (comma == list.size()) return;
      begin = comma + 1;
    }
  }

  TypeValue type(const std::string &item) {
    if (item.find_first_of("*?[") != std::string::npos) return {{1, 0}, item};
    if (const auto number = catalogue_->number_of(item)) {
      const catalogue::MessageType *known = catalogue_->find(*number);
      // The name of a range means all of its types, a number only itself.
      const bool by_name = known != nullptr && known->name == item;
      return {{*number, by_name ? known->last : *number}, ""};
    }
    if (const auto numbers = range(item)) return {*numbers, ""};
    fail("the catalogue has no such type (msgctl types lists them)");
  }

  Range kind(const std::string &item) {
    for (uint8_t i = 1; i <= flight::kLastKind; ++i) {
      if (item == flight::kind_name(static_cast<Kind>(i))) return {i, i};
    }
    fail("there is no such kind of record");
  }

  Range loss(const std::string &item) {
    for (uint8_t i = 1; i <= flight::kLastLoss; ++i) {
      if (item == word_of(flight::loss_text(static_cast<Loss>(i)))) return {i, i};
    }
    fail("there is no such loss");
  }

  std::string_view rest_;
  const std::string_view text_;
  const catalogue::Catalogue *catalogue_;
  const uint64_t now_ns_;
  int depth_ = 0;
};

// The message type that a record is about, if it is about one.
std::optional<uint32_t> type_of(const Event &event) {
  if (event.message != nullptr) return event.message->type();
  switch (event.kind()) {
    case Kind::kDelivered:
    case Kind::kLost:
    case Kind::kDescriptor:
      return event.record.a;
    default:
      return std::nullopt;
  }
}

}  // namespace

bool Node::type_fits(uint32_t type) const {
  const catalogue::MessageType *known = catalogue->find(type);
  return std::any_of(types.begin(), types.end(), [&](const TypeValue &each) {
    if (each.pattern.empty()) return in(each.numbers, type);
    return known != nullptr && fits(each.pattern, std::string(known->name));
  });
}

bool Node::name_fits(ClientId id, const Model &model) const {
  const std::string name = id == 0 ? "server" : model.client(id).name;
  const std::string label = model.label(id);
  return std::any_of(texts.begin(), texts.end(), [&](const std::string &pattern) {
    return fits(pattern, name) || pattern == label;
  });
}

bool Node::number_fits(uint64_t value) const {
  switch (compare) {
    case Compare::kLess:
      return value < ranges[0].first;
    case Compare::kLessEqual:
      return value <= ranges[0].first;
    case Compare::kGreater:
      return value > ranges[0].first;
    case Compare::kGreaterEqual:
      return value >= ranges[0].first;
    case Compare::kEqual:
    case Compare::kUnequal:
      break;
  }
  return std::any_of(ranges.begin(), ranges.end(),
                     [value](const Range &each) { return in(each, value); });
}

bool Node::holds(const Event &event, const Model &model) const {
  const auto part_holds = [&](const auto &part) { return part->holds(event, model); };
  const auto with_sign = [this](bool equal) { return equal == (compare != Compare::kUnequal); };
  const flight::Record &record = event.record;
  switch (what) {
    case What::kAnd:
      return std::all_of(parts.begin(), parts.end(), part_holds);
    case What::kOr:
      return std::any_of(parts.begin(), parts.end(), part_holds);
    case What::kNot:
      return !part_holds(parts[0]);
    case What::kType: {
      const auto type = type_of(event);
      return with_sign(type && type_fits(*type));
    }
    case What::kEvent: {
      const auto type = type_of(event);
      return with_sign(type && is_event(*type) && (types.empty() || type_fits(*type)));
    }
    case What::kFrom:
      return with_sign(name_fits(record.from, model));
    case What::kTo:
      return with_sign(name_fits(record.to, model));
    case What::kApp:
      return with_sign(name_fits(record.from, model) || name_fits(record.to, model));
    case What::kData:
      return with_sign(event.message != nullptr && number_fits(event.message->header.ulMsgData));
    case What::kLength:
      return with_sign(event.message != nullptr && number_fits(event.message->length));
    case What::kBody:
      return with_sign(event.message != nullptr &&
                       event.message->body.find(texts[0]) != std::string::npos);
    case What::kKind:
      return with_sign(number_fits(record.kind));
    case What::kLoss:
      return with_sign(event.kind() == Kind::kLost && (ranges.empty() || number_fits(record.loss)));
    case What::kSince:
      return with_sign(event.wall_ns >= time_ns);
    case What::kUntil:
      return with_sign(event.wall_ns <= time_ns);
    case What::kAnswer:
      return event.message != nullptr && event.message->answers != 0;
    case What::kRequest:
      return event.message != nullptr && event.message->answered_by != 0;
  }
  return false;
}

Filter::Filter() = default;
Filter::Filter(std::string_view text, const catalogue::Catalogue &catalogue, uint64_t now_ns)
    : root_(Parser(text, catalogue, now_ns).parse()) {}
Filter::~Filter() = default;
Filter::Filter(Filter &&) noexcept = default;
Filter &Filter::operator=(Filter &&) noexcept = default;

bool Filter::matches(const Event &event, const Model &model) const {
  return root_ == nullptr || root_->holds(event, model);
}

bool Filter::matches(const Message &message, uint64_t wall_ns, const Model &model) const {
  Event event;
  event.record.kind = static_cast<uint8_t>(Kind::kAccepted);
  event.record.from = message.from;
  event.record.to = message.to;
  event.record.number = message.number;
  event.record.time_ns = message.accepted_ns;
  event.record.a = message.length;
  event.wall_ns = wall_ns;
  event.message = &message;
  return matches(event, model);
}

bool Filter::names_kind() const {
  return root_ != nullptr && root_->names_kind();
}

}  // namespace traffic
