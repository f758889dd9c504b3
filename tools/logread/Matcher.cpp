#include "Matcher.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <unordered_map>

namespace logread {

namespace {

using ByteSet = std::array<std::uint64_t, 4>;

void Put(ByteSet& set, unsigned c) { set[c >> 6] |= std::uint64_t{1} << (c & 63); }
bool Has(const ByteSet& set, unsigned c) { return set[c >> 6] >> (c & 63) & 1; }
void PutRange(ByteSet& set, unsigned from, unsigned to) {
  for (unsigned c = from; c <= to; ++c) Put(set, c);
}
bool IsWord(int c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

enum class Assert : std::uint8_t { kBegin, kEnd, kBoundary, kNotBoundary };

// The parsed pattern. Its depth is that of the pattern's groups, which the
// parser bounds; nothing here depends on the text searched.
struct Node {
  enum Kind { kSet, kCat, kAlt, kRepeat, kAssert } kind = kCat;
  ByteSet set{};
  int min = 0, max = 0;  // max -1: no limit
  Assert assert = Assert::kBegin;
  std::vector<Node> kids;
};

constexpr int kMaxRepeat = 1000;
constexpr int kMaxDepth = 100;

struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

Node SetNode(const ByteSet& set) {
  Node n;
  n.kind = Node::kSet;
  n.set = set;
  return n;
}
Node Kids(Node::Kind kind, std::vector<Node> kids) {
  Node n;
  n.kind = kind;
  n.kids = std::move(kids);
  return n;
}

// One whole UTF-8 character whose first byte is not ASCII (or a byte that
// starts none, alone).
Node OtherCharacters() {
  ByteSet cont{}, lone{}, two{}, three{}, four{};
  PutRange(cont, 0x80, 0xBF);
  PutRange(lone, 0x80, 0xBF);
  PutRange(lone, 0xF8, 0xFF);
  PutRange(two, 0xC0, 0xDF);
  PutRange(three, 0xE0, 0xEF);
  PutRange(four, 0xF0, 0xF7);
  std::vector<Node> alts{
      SetNode(lone), Kids(Node::kCat, {SetNode(two), SetNode(cont)}),
      Kids(Node::kCat, {SetNode(three), SetNode(cont), SetNode(cont)}),
      Kids(Node::kCat, {SetNode(four), SetNode(cont), SetNode(cont), SetNode(cont)})};
  return Kids(Node::kAlt, std::move(alts));
}

class Parser {
 public:
  Parser(std::string_view p, bool icase) : p_(p), icase_(icase) {}

  Node Parse() {
    Node n = Alternation(0);
    if (at_ < p_.size()) throw Error("unmatched \")\"");
    return n;
  }

 private:
  bool More() const { return at_ < p_.size(); }
  char Peek() const { return p_[at_]; }

  Node Alternation(int depth) {
    if (depth > kMaxDepth) throw Error("groups nested more than 100 deep");
    std::vector<Node> alts{Sequence(depth)};
    while (More() && Peek() == '|') {
      ++at_;
      alts.push_back(Sequence(depth));
    }
    return alts.size() == 1 ? std::move(alts[0]) : Kids(Node::kAlt, std::move(alts));
  }

  Node Sequence(int depth) {
    std::vector<Node> items;
    while (More() && Peek() != '|' && Peek() != ')') {
      Node atom = Atom(depth);
      if (More() && Repetition(atom)) {
        if (More() && Peek() == '?') ++at_;  // lazy: the same for a yes-or-no search
        if (More() && (Peek() == '*' || Peek() == '+' || Peek() == '?' || IsCount()))
          throw Error("a repetition repeated (\"" + std::string(1, Peek()) + "\")");
      }
      items.push_back(std::move(atom));
    }
    return Kids(Node::kCat, std::move(items));
  }

  // "{n}", "{n,}" or "{n,m}" at the current place.
  bool IsCount(int* min = nullptr, int* max = nullptr, std::size_t* end = nullptr) const {
    std::size_t i = at_;
    if (i >= p_.size() || p_[i] != '{') return false;
    auto number = [&](int& value) {
      const std::size_t from = i;
      long long v = 0;
      while (i < p_.size() && p_[i] >= '0' && p_[i] <= '9')
        v = std::min<long long>(v * 10 + (p_[i++] - '0'), kMaxRepeat + 1);
      value = static_cast<int>(v);
      return i > from;
    };
    int lo = 0, hi = 0;
    ++i;
    if (!number(lo)) return false;
    hi = lo;
    if (i < p_.size() && p_[i] == ',') {
      ++i;
      if (!number(hi)) hi = -1;
    }
    if (i >= p_.size() || p_[i] != '}') return false;
    if (min) *min = lo, *max = hi, *end = i + 1;
    return true;
  }

  bool Repetition(Node& atom) {
    int min = 0, max = -1;
    std::size_t end = at_ + 1;
    const char c = Peek();
    if (c == '+')
      min = 1;
    else if (c == '?')
      max = 1;
    else if (c != '*' && !IsCount(&min, &max, &end))
      return false;
    if (min > kMaxRepeat || max > kMaxRepeat) throw Error("a count of repetitions is at most 1000");
    if (max >= 0 && max < min) throw Error("a repetition {n,m} needs n <= m");
    if (atom.kind == Node::kAssert)
      throw Error("nothing to repeat before \"" + std::string(1, c) + "\"");
    at_ = end;
    Node n;
    n.kind = Node::kRepeat;
    n.min = min;
    n.max = max;
    n.kids.push_back(std::move(atom));
    atom = std::move(n);
    return true;
  }

  Node Byte(unsigned char c) {
    ByteSet set{};
    Put(set, c);
    Fold(set);
    return SetNode(set);
  }

  void Fold(ByteSet& set) const {
    if (!icase_) return;
    for (unsigned c = 'a'; c <= 'z'; ++c) {
      if (Has(set, c) || Has(set, c - 32)) {
        Put(set, c);
        Put(set, c - 32);
      }
    }
  }

  Node AssertNode(Assert a) {
    Node n;
    n.kind = Node::kAssert;
    n.assert = a;
    return n;
  }

  // The class of \d \w \s (false for other letters).
  static bool ClassEscape(char c, ByteSet& set, bool& negated) {
    set = {};
    negated = c == 'D' || c == 'W' || c == 'S';
    switch (c | 0x20) {
      case 'd':
        PutRange(set, '0', '9');
        return true;
      case 'w':
        PutRange(set, 'a', 'z');
        PutRange(set, 'A', 'Z');
        PutRange(set, '0', '9');
        Put(set, '_');
        return true;
      case 's':
        for (char s : {' ', '\t', '\n', '\r', '\f', '\v'}) Put(set, static_cast<unsigned char>(s));
        return true;
    }
    return false;
  }

  // A character after "\" that stands for one byte.
  unsigned char EscapedByte() {
    const char c = p_[at_++];
    switch (c) {
      case 't':
        return '\t';
      case 'n':
        return '\n';
      case 'r':
        return '\r';
      case 'f':
        return '\f';
      case 'v':
        return '\v';
      case 'x': {
        auto hex = [&](std::size_t i) {
          const char h = i < p_.size() ? p_[i] : 'z';
          return h >= '0' && h <= '9'                     ? h - '0'
                 : (h | 0x20) >= 'a' && (h | 0x20) <= 'f' ? (h | 0x20) - 'a' + 10
                                                          : -1;
        };
        const int hi = hex(at_), lo = hex(at_ + 1);
        if (hi < 0 || lo < 0) throw Error("\\x takes two hexadecimal digits");
        at_ += 2;
        return static_cast<unsigned char>(hi * 16 + lo);
      }
    }
    if ((c >= '0' && c <= '9'))
      throw Error("back-references (\\" + std::string(1, c) + ") are not supported");
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))
      throw Error("unknown escape \\" + std::string(1, c));
    return static_cast<unsigned char>(c);
  }

  // Negates an ASCII class: any whole character but those in it.
  static Node Negated(const ByteSet& set) {
    ByteSet ascii{};
    for (unsigned c = 0; c < 0x80; ++c)
      if (!Has(set, c)) Put(ascii, c);
    return Kids(Node::kAlt, {SetNode(ascii), OtherCharacters()});
  }

  Node Atom(int depth) {
    const char c = p_[at_++];
    switch (c) {
      case '(': {
        if (p_.substr(at_, 2) == "?:")
          at_ += 2;
        else if (More() && Peek() == '?')
          throw Error("only (?:...) groups are supported");
        Node n = Alternation(depth + 1);
        if (!More() || Peek() != ')') throw Error("unmatched \"(\"");
        ++at_;
        return n;
      }
      case '[':
        return Class();
      case '.': {
        ByteSet set{};
        PutRange(set, 0, 0x7F);
        set[0] &= ~(std::uint64_t{1} << '\n');
        return Kids(Node::kAlt, {SetNode(set), OtherCharacters()});
      }
      case '^':
        return AssertNode(Assert::kBegin);
      case '$':
        return AssertNode(Assert::kEnd);
      case '*':
      case '+':
      case '?':
        throw Error("nothing to repeat before \"" + std::string(1, c) + "\"");
      case '\\': {
        if (!More()) throw Error("a \"\\\" at the end");
        const char e = Peek();
        if (e == 'b' || e == 'B') {
          ++at_;
          return AssertNode(e == 'b' ? Assert::kBoundary : Assert::kNotBoundary);
        }
        ByteSet set;
        bool negated;
        if (ClassEscape(e, set, negated)) {
          ++at_;
          return negated ? Negated(set) : SetNode(set);
        }
        return Byte(EscapedByte());
      }
    }
    if (c == '{' && IsCount()) throw Error("nothing to repeat before \"{\"");
    return Byte(static_cast<unsigned char>(c));
  }

  Node Class() {
    ByteSet set{};
    std::vector<Node> others;  // non-ASCII characters, as byte sequences
    const bool negated = More() && Peek() == '^';
    if (negated) ++at_;
    bool first = true;
    for (;; first = false) {
      if (!More()) throw Error("unmatched \"[\"");
      if (Peek() == ']' && !first) break;
      int lo = Member(set, others);
      if (lo < 0) continue;
      if (at_ + 1 < p_.size() && Peek() == '-' && p_[at_ + 1] != ']') {
        ++at_;
        const int hi = Member(set, others);
        if (hi < 0 || hi < lo) throw Error("a range in [...] needs two characters in order");
        if (hi >= 0x80) throw Error("ranges in [...] are ASCII only");
        PutRange(set, static_cast<unsigned>(lo), static_cast<unsigned>(hi));
      } else {
        Put(set, static_cast<unsigned>(lo));
      }
    }
    ++at_;
    Fold(set);
    if (negated) {
      if (!others.empty()) throw Error("[^...] takes ASCII characters only");
      return Negated(set);
    }
    if (others.empty()) return SetNode(set);
    others.insert(others.begin(), SetNode(set));
    return Kids(Node::kAlt, std::move(others));
  }

  // One member of a class: its byte (ASCII), or -1 when it was a whole class
  // or a non-ASCII character, put in `set` or `others` already.
  int Member(ByteSet& set, std::vector<Node>& others) {
    static const std::pair<const char*, const char*> kNamed[] = {
        {"[:digit:]", "09"},      {"[:alpha:]", "azAZ"},    {"[:alnum:]", "azAZ09"},
        {"[:upper:]", "AZ"},      {"[:lower:]", "az"},      {"[:space:]", "\t\r  "},
        {"[:xdigit:]", "09afAF"}, {"[:punct:]", "!/:@[`{~"}};
    for (const auto& [name, ranges] : kNamed) {
      if (p_.substr(at_, std::strlen(name)) != name) continue;
      at_ += std::strlen(name);
      for (const char* r = ranges; *r; r += 2)
        PutRange(set, static_cast<unsigned char>(r[0]), static_cast<unsigned char>(r[1]));
      return -1;
    }
    const unsigned char c = static_cast<unsigned char>(p_[at_++]);
    if (c == '\\') {
      if (!More()) throw Error("unmatched \"[\"");
      ByteSet escaped;
      bool negated;
      if (ClassEscape(Peek(), escaped, negated)) {
        if (negated) throw Error("\\D, \\W and \\S cannot stand in [...]");
        ++at_;
        for (int i = 0; i < 4; ++i) set[i] |= escaped[i];
        return -1;
      }
      return EscapedByte();
    }
    if (c < 0x80) return c;
    // A UTF-8 character: its lead byte and the continuation bytes after it.
    std::vector<Node> bytes{SetNode({})};
    Put(bytes[0].set, c);
    while (More() && (static_cast<unsigned char>(Peek()) & 0xC0) == 0x80) {
      bytes.push_back(SetNode({}));
      Put(bytes.back().set, static_cast<unsigned char>(p_[at_++]));
    }
    others.push_back(Kids(Node::kCat, std::move(bytes)));
    return -1;
  }

  std::string_view p_;
  bool icase_;
  std::size_t at_ = 0;
};

struct Inst {
  enum Op : std::uint8_t { kByte, kSplit, kJump, kMatch, kAssert } op;
  Assert assert = Assert::kBegin;
  int x = 0, y = 0;  // targets; for kByte, x is the set's index
};

}  // namespace

struct Matcher::Impl {
  std::vector<Inst> prog;
  std::vector<ByteSet> sets;
  std::vector<int> starts;

  // The deterministic states met so far: the NFA states reached after a
  // byte (before following their empty steps, which depend on the next
  // byte for $ and \b), whether the text is at its start, and whether the
  // byte before was a word character.
  static constexpr int kUnknown = -1, kMatched = -2;
  static constexpr std::size_t kMaxStates = 2000;
  struct State {
    std::vector<int> kernel;
    std::uint8_t flags = 0;  // 1: at the start, 2: after a word character
    int end = -1;            // whether the text may end here: -1 unknown
    std::array<int, 256> next;
  };
  mutable std::vector<State> states;
  mutable std::unordered_map<std::string, int> ids;
  mutable int start = -1;  // the state at the start of a text, once found
  // Idle: no pattern under way (an empty kernel). A quiet byte leads from
  // any idle state to an idle one without a match, so a run of them is
  // passed over without the automaton: for one or two bytes that are not
  // quiet ("e" and "E" of "exception") eight bytes at a time.
  mutable bool quiet_known = false;
  mutable std::array<bool, 256> quiet{};
  mutable std::vector<unsigned char> loud;  // the bytes that are not quiet
  mutable int idle[2] = {-1, -1};           // idle state after a byte that is not / is a word byte

  void FindQuiet() const {
    quiet_known = true;
    loud.clear();
    for (int c = 0; c < 256; ++c) {
      bool q = true;
      for (const std::uint8_t flags : {0, 1, 2}) {
        if (Closure({}, flags, c)) q = false;
        for (const int pc : reached)
          if (Has(sets[prog[pc].x], static_cast<unsigned>(c))) q = false;
      }
      quiet[c] = q;
      if (!q) loud.push_back(static_cast<unsigned char>(c));
    }
  }

  // The first byte from `i` on that is not quiet, or `n`.
  std::size_t SkipQuiet(const unsigned char* p, std::size_t i, std::size_t n) const {
    if (loud.size() == 1) {
      const void* at = std::memchr(p + i, loud[0], n - i);
      return at ? static_cast<std::size_t>(static_cast<const unsigned char*>(at) - p) : n;
    }
    if (loud.size() == 2) {
      constexpr std::uint64_t kOnes = 0x0101010101010101ULL, kHigh = 0x8080808080808080ULL;
      const std::uint64_t a = kOnes * loud[0], b = kOnes * loud[1];
      // Whether a word of eight bytes holds a zero byte.
      const auto zero = [](std::uint64_t v) { return (v - kOnes) & ~v & kHigh; };
      for (std::uint64_t w; i + 8 <= n; i += 8) {
        std::memcpy(&w, p + i, 8);
        if (zero(w ^ a) | zero(w ^ b)) break;
      }
    }
    while (i < n && quiet[p[i]]) ++i;
    return i;
  }
  mutable std::vector<std::uint32_t> mark;
  mutable std::uint32_t generation = 0;
  mutable std::vector<int> stack, reached;

  int Emit(Inst inst) {
    if (prog.size() >= kMaxProgram)
      throw Error("the pattern is too large (over " + std::to_string(kMaxProgram) +
                  " steps once its repetitions are written out)");
    prog.push_back(inst);
    return static_cast<int>(prog.size()) - 1;
  }

  int SetIndex(const ByteSet& set) {
    for (std::size_t i = 0; i < sets.size(); ++i)
      if (sets[i] == set) return static_cast<int>(i);
    sets.push_back(set);
    return static_cast<int>(sets.size()) - 1;
  }

  void Compile(const Node& n) {
    switch (n.kind) {
      case Node::kSet:
        Emit({Inst::kByte, Assert::kBegin, SetIndex(n.set), 0});
        return;
      case Node::kAssert:
        Emit({Inst::kAssert, n.assert, 0, 0});
        return;
      case Node::kCat:
        for (const Node& kid : n.kids) Compile(kid);
        return;
      case Node::kAlt: {
        std::vector<int> jumps;
        for (std::size_t i = 0; i < n.kids.size(); ++i) {
          if (i + 1 == n.kids.size()) {
            Compile(n.kids[i]);
            break;
          }
          const int split = Emit({Inst::kSplit});
          prog[split].x = split + 1;
          Compile(n.kids[i]);
          jumps.push_back(Emit({Inst::kJump}));
          prog[split].y = static_cast<int>(prog.size());
        }
        for (int j : jumps) prog[j].x = static_cast<int>(prog.size());
        return;
      }
      case Node::kRepeat: {
        for (int i = 0; i < n.min; ++i) Compile(n.kids[0]);
        if (n.max < 0) {
          const int split = Emit({Inst::kSplit});
          prog[split].x = split + 1;
          Compile(n.kids[0]);
          Emit({Inst::kJump, Assert::kBegin, split, 0});
          prog[split].y = static_cast<int>(prog.size());
          return;
        }
        std::vector<int> skips;
        for (int i = n.min; i < n.max; ++i) {
          const int split = Emit({Inst::kSplit});
          prog[split].x = split + 1;
          skips.push_back(split);
          Compile(n.kids[0]);
        }
        for (int s : skips) prog[s].y = static_cast<int>(prog.size());
        return;
      }
    }
  }

  // Follows the empty steps from `kernel` and the starts; the byte steps
  // reached go to `reached`. `next`: the byte ahead, -1 at the end. True
  // when a pattern has matched.
  bool Closure(const std::vector<int>& kernel, std::uint8_t flags, int next) const {
    if (++generation == 0) {
      std::fill(mark.begin(), mark.end(), 0);
      generation = 1;
    }
    reached.clear();
    stack.assign(kernel.rbegin(), kernel.rend());
    stack.insert(stack.end(), starts.rbegin(), starts.rend());
    const bool before = flags & 2, after = next >= 0 && IsWord(next);
    while (!stack.empty()) {
      const int pc = stack.back();
      stack.pop_back();
      if (mark[pc] == generation) continue;
      mark[pc] = generation;
      const Inst& in = prog[pc];
      switch (in.op) {
        case Inst::kByte:
          reached.push_back(pc);
          break;
        case Inst::kMatch:
          return true;
        case Inst::kJump:
          stack.push_back(in.x);
          break;
        case Inst::kSplit:
          stack.push_back(in.y);
          stack.push_back(in.x);
          break;
        case Inst::kAssert: {
          bool ok = false;
          switch (in.assert) {
            case Assert::kBegin:
              ok = flags & 1;
              break;
            case Assert::kEnd:
              ok = next < 0;
              break;
            case Assert::kBoundary:
              ok = before != after;
              break;
            case Assert::kNotBoundary:
              ok = before == after;
              break;
          }
          if (ok) stack.push_back(pc + 1);
          break;
        }
      }
    }
    return false;
  }

  int Find(std::vector<int> kernel, std::uint8_t flags) const {
    std::string key(1, static_cast<char>(flags));
    key.append(reinterpret_cast<const char*>(kernel.data()), kernel.size() * sizeof(int));
    const auto [it, added] = ids.emplace(std::move(key), static_cast<int>(states.size()));
    if (added) {
      states.emplace_back();
      states.back().kernel = std::move(kernel);
      states.back().flags = flags;
      states.back().next.fill(kUnknown);
    }
    return it->second;
  }

  // The state after byte `c` in state `s` (kMatched: a pattern matched
  // before it). May start the cache over.
  int Step(int s, int c) const {
    if (Closure(states[s].kernel, states[s].flags, c)) return states[s].next[c] = kMatched;
    std::vector<int> kernel;
    for (int pc : reached)
      if (Has(sets[prog[pc].x], static_cast<unsigned>(c))) kernel.push_back(pc + 1);
    std::sort(kernel.begin(), kernel.end());
    kernel.erase(std::unique(kernel.begin(), kernel.end()), kernel.end());
    const std::uint8_t flags = IsWord(c) ? 2 : 0;
    if (states.size() >= kMaxStates) {
      states.clear();
      ids.clear();
      start = idle[0] = idle[1] = -1;
      return Find(std::move(kernel), flags);
    }
    const int t = Find(std::move(kernel), flags);
    states[s].next[c] = t;
    return t;
  }
};

Matcher::Matcher() : impl_(std::make_unique<Impl>()) {}
Matcher::~Matcher() = default;
Matcher::Matcher(Matcher&&) noexcept = default;
Matcher& Matcher::operator=(Matcher&&) noexcept = default;

std::string Matcher::Add(std::string_view pattern, bool ignore_case) {
  Impl& m = *impl_;
  const std::size_t size = m.prog.size(), sets = m.sets.size();
  try {
    const Node tree = Parser(pattern, ignore_case).Parse();
    const int start = static_cast<int>(m.prog.size());
    m.Compile(tree);
    m.Emit({Inst::kMatch});
    m.starts.push_back(start);
  } catch (const Error& e) {
    m.prog.resize(size);
    m.sets.resize(sets);
    return e.what();
  }
  m.mark.assign(m.prog.size(), 0);
  m.generation = 0;
  m.states.clear();
  m.ids.clear();
  m.start = m.idle[0] = m.idle[1] = -1;
  m.quiet_known = false;
  return {};
}

bool Matcher::Search(std::string_view text) const {
  const Impl& m = *impl_;
  if (m.starts.empty()) return true;
  if (!m.quiet_known) m.FindQuiet();
  if (m.start < 0) m.start = m.Find({}, 1);
  int s = m.start;
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t i = 0, n = text.size(); i < n; ++i) {
    if (m.quiet[p[i]] && m.states[s].kernel.empty()) {
      i = m.SkipQuiet(p, i, n);
      const int word = IsWord(p[i - 1]) ? 1 : 0;
      if (m.idle[word] < 0) m.idle[word] = m.Find({}, word ? 2 : 0);
      s = m.idle[word];
      if (i == n) break;
    }
    int t = m.states[s].next[p[i]];
    if (t < 0) {
      if (t == Impl::kMatched) return true;
      t = m.Step(s, p[i]);
      if (t == Impl::kMatched) return true;
    }
    s = t;
  }
  Impl::State& last = m.states[s];
  if (last.end < 0) last.end = m.Closure(last.kernel, last.flags, -1);
  return last.end == 1;
}

bool HasCapital(std::string_view pattern) {
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '\\') {
      i += i + 1 < pattern.size() && pattern[i + 1] == 'x' ? 3 : 1;  // \W, \xAB
      continue;
    }
    if (pattern[i] >= 'A' && pattern[i] <= 'Z') return true;
  }
  return false;
}

}  // namespace logread
