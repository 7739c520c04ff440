#include "ymgrd/datastore/xpath_scan.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace {

typedef enum _token_kind {
  TOKEN_END = 0,
  TOKEN_NAME,     // a name test or the name of a function, axis or node type
  TOKEN_WILDCARD, // * or prefix:*
  TOKEN_LITERAL,  // text or number
  TOKEN_OPERATOR, // and, or, +, =, ...; not the slashes
  TOKEN_PUNCTUATION,
} token_kind_t;

typedef struct _token {
  token_kind_t kind = TOKEN_END;
  std::string_view text;
} token_t;

constexpr std::array<std::string_view, 18> punctuation = {"..", "::", "//", "!=", "<=", ">=", ".", "/", "(",
                                                          ")",  "[",  "]",  ",",  "@",  "|",  "=", "<", ">"};
constexpr std::array<std::string_view, 6> comparisons = {"!=", "<=", ">=", "=", "<", ">"};
constexpr std::array<std::string_view, 4> named_operators = {"and", "or", "div", "mod"};

// Functions whose result depends on their arguments only: on whether there are nodes ...
constexpr std::array<std::string_view, 7> counting_functions = {"count", "not",        "boolean",      "name",
                                                                "last",  "local-name", "namespace-uri"};
// ... or on their values.
constexpr std::array<std::string_view, 26> value_functions = {"string",
                                                              "concat",
                                                              "starts-with",
                                                              "contains",
                                                              "substring-before",
                                                              "substring-after",
                                                              "substring",
                                                              "string-length",
                                                              "normalize-space",
                                                              "translate",
                                                              "number",
                                                              "sum",
                                                              "floor",
                                                              "ceiling",
                                                              "round",
                                                              "true",
                                                              "false",
                                                              "re-match",
                                                              "derived-from",
                                                              "enum-value",
                                                              "bit-is-set",
                                                              "derived-from-or-self",
                                                              "position",
                                                              "current",
                                                              "deref",
                                                              "lang"};

template <size_t N>
bool is_one_of(std::string_view text, const std::array<std::string_view, N> &words)
{
  return std::find(words.begin(), words.end(), text) != words.end();
}

bool is_name_char(char c)
{
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool is_name_start(char c)
{
  return is_name_char(c) && !std::isdigit(static_cast<unsigned char>(c)) && c != '-' && c != '.';
}

class tokenizer {
public:
  explicit tokenizer(std::string_view text) : text_(text) {}

  // False when the text is no XPath.
  bool run(std::vector<token_t> *ret_tokens)
  {
    std::vector<token_t> tokens;
    while (skip_blanks(), at_ < text_.size()) {
      token_t token = next(tokens.empty() ? token_t() : tokens.back());
      if (token.text.empty()) {
        return false;
      }
      tokens.push_back(token);
    }
    tokens.emplace_back();
    *ret_tokens = std::move(tokens);
    return true;
  }

private:
  void skip_blanks()
  {
    while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_]))) {
      at_++;
    }
  }

  token_t take(token_kind_t kind, size_t length)
  {
    token_t token{kind, text_.substr(at_, length)};
    at_ += length;
    return token;
  }

  // Whether an operator may stand behind `previous`: there a star multiplies, and "and" is no name.
  static bool ends_operand(const token_t &previous)
  {
    if (previous.kind == TOKEN_PUNCTUATION) {
      return previous.text == ")" || previous.text == "]" || previous.text == "." || previous.text == "..";
    }
    return previous.kind == TOKEN_NAME || previous.kind == TOKEN_WILDCARD || previous.kind == TOKEN_LITERAL;
  }

  token_t next(const token_t &previous)
  {
    char c = text_[at_];
    if (c == '\'' || c == '"') {
      size_t end = text_.find(c, at_ + 1);
      return end == std::string_view::npos ? token_t() : take(TOKEN_LITERAL, end + 1 - at_);
    }
    bool is_fraction = c == '.' && at_ + 1 < text_.size() && std::isdigit(static_cast<unsigned char>(text_[at_ + 1]));
    if (std::isdigit(static_cast<unsigned char>(c)) || is_fraction) {
      size_t end = text_.find_first_not_of("0123456789.", at_);
      return take(TOKEN_LITERAL, (end == std::string_view::npos ? text_.size() : end) - at_);
    }
    if (c == '*') {
      return take(ends_operand(previous) ? TOKEN_OPERATOR : TOKEN_WILDCARD, 1);
    }
    if (c == '+' || c == '-') {
      return take(TOKEN_OPERATOR, 1);
    }
    for (std::string_view sign : punctuation) {
      if (text_.substr(at_, sign.size()) == sign) {
        bool compares = is_one_of(sign, comparisons) || sign == "|";
        return take(compares ? TOKEN_OPERATOR : TOKEN_PUNCTUATION, sign.size());
      }
    }
    return is_name_start(c) ? name(previous) : token_t();
  }

  size_t name_end(size_t from) const
  {
    while (from < text_.size() && is_name_char(text_[from])) {
      from++;
    }
    return from;
  }

  token_t name(const token_t &previous)
  {
    size_t end = name_end(at_);
    if (ends_operand(previous) && is_one_of(text_.substr(at_, end - at_), named_operators)) {
      return take(TOKEN_OPERATOR, end - at_);
    }
    if (end + 1 < text_.size() && text_[end] == ':' && text_[end + 1] != ':') {
      if (text_[end + 1] == '*') {
        return take(TOKEN_WILDCARD, end + 2 - at_);
      }
      end = name_end(end + 1);
    }
    return take(TOKEN_NAME, end - at_);
  }

  std::string_view text_;
  size_t at_ = 0;
};

std::string_view local_name(std::string_view name)
{
  size_t colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

// Where a path starts: how deep below (or, negative, above) the expression's context node, and on which node.
typedef struct _start {
  bool anywhere = false;
  int depth = 0;
  bool at_context = true; // the expression's context node itself
  std::string name;       // else the name of the node, if it is known
} start_t;

// What the value of an expression is used for.
typedef enum _use { USE_EXISTENCE, USE_VALUE } use_t;

class scanner {
public:
  explicit scanner(std::vector<token_t> tokens) : tokens_(std::move(tokens)) {}

  xpath_scan_t run()
  {
    expression(start_t(), USE_EXISTENCE, 0);
    scan_.understood = scan_.understood && peek().kind == TOKEN_END;
    return std::move(scan_);
  }

private:
  static constexpr int DEEPEST = 50; // nested brackets

  const token_t &peek(size_t ahead = 0) const { return tokens_[std::min(at_ + ahead, tokens_.size() - 1)]; }
  bool is(std::string_view text, size_t ahead = 0) const
  {
    return peek(ahead).kind == TOKEN_PUNCTUATION && peek(ahead).text == text;
  }
  bool skip(std::string_view text)
  {
    if (!is(text)) {
      return false;
    }
    at_++;
    return true;
  }
  void expect(std::string_view text)
  {
    if (!skip(text)) {
      give_up();
    }
  }
  void give_up()
  {
    scan_.understood = false;
    at_ = tokens_.size() - 1;
  }
  bool closes() const { return peek().kind == TOKEN_END || is(")") || is("]") || is(","); }

  static bool is_logical(const token_t &token) { return token.text == "and" || token.text == "or"; }

  // Operands between operators; the value of an operand of and, or counts as a boolean.
  void expression(const start_t &start, use_t use, int level)
  {
    if (level > DEEPEST) {
      give_up();
      return;
    }
    bool after_logical = false;
    bool first = true;
    while (!closes()) {
      size_t before = at_;
      bool negated = false;
      while (peek().kind == TOKEN_OPERATOR && peek().text == "-") {
        negated = true;
        at_++;
      }
      size_t paths = scan_.paths.size();
      operand(start, level);
      bool ends = closes();
      bool logical_behind = peek().kind == TOKEN_OPERATOR && is_logical(peek());
      bool alone = first && ends;
      bool boolean = !negated && (alone ? use == USE_EXISTENCE : (first || after_logical) && (ends || logical_behind));
      if (own_path_ != NONE && own_path_ >= paths) {
        scan_.paths[own_path_].existence = boolean;
      }
      if (!ends && peek().kind != TOKEN_OPERATOR) {
        give_up();
      }
      after_logical = logical_behind;
      first = false;
      if (!ends) {
        at_++; // the operator
        if (closes()) {
          give_up();
        }
      }
      if (at_ == before) {
        give_up();
      }
    }
  }

  // Sets own_path_ to the location path that the operand is, if it is one.
  void operand(const start_t &start, int level)
  {
    own_path_ = NONE;
    if (peek().kind == TOKEN_LITERAL) {
      at_++;
      behind_primary(level);
      return;
    }
    if (skip("(")) {
      expression(start, USE_VALUE, level + 1);
      expect(")");
      behind_primary(level);
      return;
    }
    bool is_call = peek().kind == TOKEN_NAME && is("(", 1) && !is_node_type(peek().text);
    if (is_call) {
      call(start, level);
      return;
    }
    path(start, level);
  }

  static bool is_node_type(std::string_view name)
  {
    return name == "node" || name == "text" || name == "comment" || name == "processing-instruction";
  }

  void call(const start_t &start, int level)
  {
    std::string_view name = peek().text;
    at_ += 2;
    bool counts = is_one_of(name, counting_functions);
    if (!counts && !is_one_of(name, value_functions)) {
      scan_.understood = false;
    }
    bool has_arguments = !is(")");
    while (!closes()) {
      expression(start, counts ? USE_EXISTENCE : USE_VALUE, level + 1);
      if (!skip(",")) {
        break;
      }
    }
    expect(")");
    own_path_ = NONE;
    if (name == "current") {
      path_from(start_t(), level);
      return;
    }
    if (name == "deref") {
      scan_.has_deref = true;
    } else if (!has_arguments && is_one_of_context_functions(name)) {
      implicit_context(start);
    }
    behind_primary(level);
  }

  // Without argument these take the context node.
  static bool is_one_of_context_functions(std::string_view name)
  {
    return name == "string" || name == "number" || name == "string-length" || name == "normalize-space";
  }

  void implicit_context(const start_t &start)
  {
    xpath_path_t path;
    path.anywhere = start.anywhere;
    path.ascent = std::max(0, -start.depth);
    path.ends_at_context = start.at_context;
    path.last = start.name;
    scan_.paths.push_back(std::move(path));
  }

  // Predicates and steps behind what is no location path: they may start anywhere.
  void behind_primary(int level)
  {
    if (!is("[") && !is("/") && !is("//")) {
      return;
    }
    start_t start;
    start.anywhere = true;
    start.at_context = false;
    path_from(start, level);
  }

  void path(const start_t &start, int level)
  {
    start_t from = start;
    if (is("/") || is("//")) {
      from.anywhere = true;
      from.at_context = false;
      from.name.clear();
      if (is("/") && !starts_step(1)) { // the root alone
        at_++;
        own_path_ = open_path(from);
        return;
      }
      path_from(from, level);
      return;
    }
    size_t own = open_path(from);
    walk_t walk{own, from};
    step(&walk, level);
    steps(&walk, level);
    close_path(walk);
  }

  bool starts_step(size_t ahead) const
  {
    const token_t &token = peek(ahead);
    return token.kind == TOKEN_NAME || token.kind == TOKEN_WILDCARD ||
           (token.kind == TOKEN_PUNCTUATION && (token.text == "." || token.text == ".." || token.text == "@"));
  }

  typedef struct _walk {
    size_t path;
    start_t at;
  } walk_t;

  size_t open_path(const start_t &from)
  {
    xpath_path_t path;
    path.anywhere = from.anywhere;
    path.ascent = std::max(0, -from.depth);
    scan_.paths.push_back(std::move(path));
    return scan_.paths.size() - 1;
  }

  void close_path(const walk_t &walk)
  {
    xpath_path_t &path = scan_.paths[walk.path];
    path.last = walk.at.name;
    path.ends_at_context = walk.at.at_context;
    own_path_ = walk.path;
  }

  // What follows a start that has been read: predicates and further steps.
  void path_from(const start_t &from, int level)
  {
    walk_t walk{open_path(from), from};
    predicates(&walk, level);
    steps(&walk, level);
    close_path(walk);
  }

  void steps(walk_t *walk, int level)
  {
    while (is("/") || is("//")) {
      if (is("//")) {
        scan_.paths[walk->path].any_step = true;
      }
      at_++;
      step(walk, level);
    }
  }

  void step(walk_t *walk, int level)
  {
    xpath_path_t &path = scan_.paths[walk->path];
    if (skip(".")) {
      // stays where it is
    } else if (skip("..")) {
      walk->at.depth--;
      walk->at.at_context = false;
      walk->at.name.clear();
      path.ascent = std::max(path.ascent, -walk->at.depth);
    } else if (is("@") || is("::", 1)) { // attributes and named axes: rare, and not followed by libyang's search either
      give_up();
      return;
    } else {
      name_test(walk);
    }
    predicates(walk, level);
  }

  void name_test(walk_t *walk)
  {
    xpath_path_t &path = scan_.paths[walk->path];
    walk->at.depth++;
    walk->at.at_context = false;
    walk->at.name.clear();
    if (peek().kind == TOKEN_WILDCARD) {
      path.any_step = true;
      at_++;
    } else if (peek().kind == TOKEN_NAME && is("(", 1)) { // a node type
      path.any_step = true;
      path.anywhere = true;
      walk->at.anywhere = true;
      at_ += 2;
      if (peek().kind == TOKEN_LITERAL) {
        at_++;
      }
      expect(")");
    } else if (peek().kind == TOKEN_NAME) {
      walk->at.name = local_name(peek().text);
      path.names.push_back(walk->at.name);
      at_++;
    } else {
      give_up();
    }
  }

  void predicates(walk_t *walk, int level)
  {
    while (skip("[")) {
      scan_.has_predicate = true;
      expression(walk->at, USE_EXISTENCE, level + 1);
      expect("]");
    }
  }

  static constexpr size_t NONE = static_cast<size_t>(-1);

  std::vector<token_t> tokens_;
  size_t at_ = 0;
  size_t own_path_ = NONE;
  xpath_scan_t scan_;
};

} // namespace

xpath_scan_t xpath_scan(std::string_view expression)
{
  std::vector<token_t> tokens;
  if (!tokenizer(expression).run(&tokens)) {
    xpath_scan_t scan;
    scan.understood = false;
    return scan;
  }
  return scanner(std::move(tokens)).run();
}
