// Splitting command lines as a POSIX shell does (Shell Command Language, 2.2 Quoting and 2.3 Token
// Recognition), without expanding anything.
//
// Words never need more room than the text they come from, so one block made beforehand holds the
// vector and all words, and scanning cannot fail for want of memory.

#include "words.h"

#include <cstdlib>
#include <cstring>

#include "orputil.h"

namespace orputil {
namespace {

enum class Token { kEnd, kWord, kOverwrite, kAppend, kBackground, kError };

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n';
}

bool is_operator(char c) {
  return c != '\0' && std::strchr("><|&;()", c) != nullptr;
}

bool all_digits(const char *begin, const char *end) {
  while (begin != end && *begin >= '0' && *begin <= '9') ++begin;
  return begin == end;
}

class Scanner {
 public:
  // Words are written to `out`, which has room for the text and a NUL. Without operators,
  // characters such as ">" are ordinary and a line end is a blank.
  Scanner(const char *text, char *out, bool operators)
      : at_(text), out_(out), operators_(operators) {}

  // The next token; a word's text is at word().
  Token next() {
    skip_blanks();
    while (*at_ == '#') {
      at_ += std::strcspn(at_, "\n");
      skip_blanks();
    }
    if (*at_ == '\0') return Token::kEnd;
    if (operators_ && *at_ == '\n') return only_blanks_left() ? Token::kEnd : Token::kError;
    if (operators_ && is_operator(*at_)) return scan_operator();
    return scan_word();
  }

  char *word() const { return word_; }

 private:
  bool at_line_join() const { return at_[0] == '\\' && at_[1] == '\n'; }

  void skip_blanks() {
    for (;; ++at_) {
      if (at_line_join()) {
        ++at_;
      } else if (!is_blank(*at_) || (operators_ && *at_ == '\n')) {
        return;
      }
    }
  }

  bool only_blanks_left() const { return at_[std::strspn(at_, " \t\n")] == '\0'; }

  Token scan_operator() {
    const char c = *at_++;
    if (c == '&') return Token::kBackground;
    if (c != '>') return Token::kError;
    if (*at_ != '>') return Token::kOverwrite;
    ++at_;
    return Token::kAppend;
  }

  Token scan_word() {
    word_ = out_;
    const char *const begin = at_;
    while (*at_ != '\0' && !is_blank(*at_) && !(operators_ && is_operator(*at_))) {
      if (!scan_piece()) return Token::kError;
    }
    // "2>" would redirect another descriptor than the output.
    if (operators_ && *at_ == '>' && all_digits(begin, at_)) return Token::kError;
    *out_++ = '\0';
    return Token::kWord;
  }

  // One character, or one quoted stretch.
  bool scan_piece() {
    switch (*at_) {
      case '\'':
        return scan_single_quotes();
      case '"':
        return scan_double_quotes();
      case '\\':
        if (at_line_join()) {
          at_ += 2;
          return true;
        }
        ++at_;
        return keep();
      default:
        return keep();
    }
  }

  // False at the end of the text.
  bool keep() {
    if (*at_ == '\0') return false;
    *out_++ = *at_++;
    return true;
  }

  bool scan_single_quotes() {
    for (++at_; *at_ != '\'';) {
      if (!keep()) return false;
    }
    ++at_;
    return true;
  }

  bool scan_double_quotes() {
    for (++at_; *at_ != '"';) {
      if (at_line_join()) {
        at_ += 2;
        continue;
      }
      if (*at_ == '\\' && at_[1] != '\0' && std::strchr("\"\\$`", at_[1]) != nullptr) ++at_;
      if (!keep()) return false;
    }
    ++at_;
    return true;
  }

  const char *at_;
  char *out_;
  char *word_ = nullptr;
  bool operators_;
};

// The block for the words of `text`: a vector with room for all of them, then their characters at
// *room. A word takes at least one character and words are separated, so a text of n characters
// holds at most (n + 1) / 2 words.
char **make_block(const char *text, char **room) {
  const size_t length = std::strlen(text);
  if (length > UINT32_MAX / 16) return nullptr;

  const size_t slots = (length + 1) / 2 + 1;
  auto **words = static_cast<char **>(std::malloc(slots * sizeof(char *) + length + 1));
  if (words != nullptr) *room = reinterpret_cast<char *>(words + slots);
  return words;
}

// Words up to the first other token, which is returned.
Token scan_words(Scanner &scanner, char **words, uint32_t *count) {
  Token token;
  *count = 0;
  while ((token = scanner.next()) == Token::kWord) words[(*count)++] = scanner.word();
  words[*count] = nullptr;
  return token;
}

bool scan_command(Scanner &scanner, Command *out) {
  Token token = scan_words(scanner, out->words, &out->count);
  if (token == Token::kOverwrite || token == Token::kAppend) {
    out->append = token == Token::kAppend;
    if (scanner.next() != Token::kWord) return false;
    out->result_file = scanner.word();
    token = scanner.next();
  }
  if (token == Token::kBackground) {
    out->background = true;
    token = scanner.next();
  }
  return token == Token::kEnd;
}

}  // namespace

bool parse_command(const char *text, Command *out) {
  char *room;
  Command command{};
  command.words = make_block(text, &room);
  if (command.words == nullptr) return false;

  Scanner scanner(text, room, true);
  if (!scan_command(scanner, &command)) {
    std::free(command.words);
    return false;
  }
  *out = command;
  return true;
}

}  // namespace orputil

using namespace orputil;

extern "C" uint32_t ORP_UTIL_ParseArgsEx(const char *command, char ***args, uint32_t *count,
                                         void **symbols) {
  if (args != nullptr) *args = nullptr;
  if (count != nullptr) *count = 0;
  if (symbols != nullptr) *symbols = nullptr;
  if (command == nullptr || args == nullptr || count == nullptr || symbols == nullptr) return 1;

  char *room;
  char **words = make_block(command, &room);
  if (words == nullptr) return 1;
  Scanner scanner(command, room, false);
  uint32_t found;
  if (scan_words(scanner, words, &found) != Token::kEnd) {
    std::free(words);
    return 1;
  }
  *args = words;
  *count = found;
  return 0;
}

extern "C" void UtilFreeSymbols(void *symbols) {
  std::free(symbols);
}

extern "C" void ORP_UTIL_FreeArgs(char **args) {
  std::free(args);
}
