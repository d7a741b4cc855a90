#include "catalogue/json_reader.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

namespace catalogue {
namespace {

constexpr size_t kMostLevels = 16;
constexpr size_t kMostMembers = 64;

// The parser takes its characters from here, so that its position is known.
struct Position {
  const char *next;
  size_t lines_before = 0;  // line feeds before the character that was taken last
  bool after_line_feed = false;

  void take() {
    lines_before += after_line_feed ? 1 : 0;
    after_line_feed = *next++ == '\n';
  }
  // The line of a value that has just been read. The parser may have taken one character beyond it.
  size_t line() const { return lines_before + 1; }
};

class Cursor {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char *;
  using reference = const char &;

  explicit Cursor(Position *position) : position_(position), end_(nullptr) {}
  explicit Cursor(const char *end) : position_(nullptr), end_(end) {}

  reference operator*() const { return *position_->next; }
  Cursor &operator++() {
    position_->take();
    return *this;
  }
  bool operator==(const Cursor &other) const { return at() == other.at(); }
  bool operator!=(const Cursor &other) const { return at() != other.at(); }

 private:
  const char *at() const { return position_ != nullptr ? position_->next : end_; }

  Position *position_;
  const char *end_;
};

// Builds the value from the parser's events.
class Builder final : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit Builder(const Position *position) : position_(position) {}

  bool null() override { return add({}); }
  bool boolean(bool value) override {
    JsonValue truth;
    truth.kind = JsonValue::Kind::kTruth;
    truth.truth = value;
    return add(std::move(truth));
  }
  bool number_integer(number_integer_t /*value*/) override { return add({}); }
  bool number_float(number_float_t /*value*/, const string_t & /*text*/) override {
    return add({});
  }
  bool number_unsigned(number_unsigned_t value) override {
    JsonValue number;
    number.kind = JsonValue::Kind::kNumber;
    number.number = value;
    return add(std::move(number));
  }
  bool string(string_t &value) override {
    JsonValue text;
    text.kind = JsonValue::Kind::kText;
    text.text = std::move(value);
    return add(std::move(text));
  }
  bool binary(binary_t & /*value*/) override { return add({}); }

  bool start_object(size_t /*count*/) override { return open(JsonValue::Kind::kObject); }
  bool start_array(size_t /*count*/) override { return open(JsonValue::Kind::kList); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }

  bool key(string_t &name) override {
    JsonValue &object = open_.back();
    if (object.names.size() == kMostMembers) {
      throw JsonError(position_->line(), "too many members in one object");
    }
    if (object.member(name) != nullptr) {
      throw JsonError(position_->line(), "a name stands twice in one object");
    }
    object.names.push_back(std::move(name));
    return true;
  }

  bool parse_error(size_t /*at*/, const std::string & /*token*/,
                   const nlohmann::detail::exception &error) override {
    // "[json.exception.parse_error.101] parse error at line 1, column 2: syntax error ..."
    std::string_view what = error.what();
    if (const size_t column = what.find("column "); column != what.npos) {
      what.remove_prefix(std::min(what.size(), what.find(": ", column) + 2));
    }
    throw JsonError(position_->line(), std::string(what));
  }

  JsonValue take() { return std::move(root_); }

 private:
  bool open(JsonValue::Kind kind) {
    if (open_.size() == kMostLevels) throw JsonError(position_->line(), "too many levels");
    JsonValue value;
    value.kind = kind;
    value.line = position_->line();
    open_.push_back(std::move(value));
    return true;
  }

  bool close() {
    JsonValue value = std::move(open_.back());
    open_.pop_back();
    return place(std::move(value));
  }

  bool add(JsonValue value) {
    value.line = position_->line();
    return place(std::move(value));
  }

  bool place(JsonValue value) {
    (open_.empty() ? root_ : open_.back().items.emplace_back()) = std::move(value);
    return true;
  }

  const Position *position_;
  std::vector<JsonValue> open_;
  JsonValue root_;
};

}  // namespace

const JsonValue *JsonValue::member(std::string_view name) const {
  const auto found = std::ranges::find(names, name);
  if (found == names.end()) return nullptr;
  return &items[static_cast<size_t>(found - names.begin())];
}

JsonValue read_json(std::string_view text) {
  Position position{text.data()};
  Builder builder(&position);
  nlohmann::json::sax_parse(Cursor(&position), Cursor(text.data() + text.size()), &builder);
  return builder.take();
}

}  // namespace catalogue
