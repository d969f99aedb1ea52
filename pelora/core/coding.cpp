// JSON text in and out on RapidJSON: the text encoder behind toString(), and the SAX reader behind
// JSON::parse, which takes every number as its exact text.
#include "pelora/core/coding.hpp"

#include <cstdint>
#include <cstring>
#include <utility>

#include "pelora/core/json.hpp"
#include "pelora/core/rapidjson_internal.hpp"

namespace pelora {

// ---- DecodingError ------------------------------------------------------------------------------

namespace {
std::string describe(std::string_view detail, std::string_view path) {
  std::string text(detail);
  if (!path.empty()) text.append(" (at \"").append(path).append("\")");
  return text;
}
}  // namespace

DecodingError::DecodingError(Kind kind, std::string detail, std::string path, std::string key,
                             std::optional<std::size_t> offset)
    : std::runtime_error(describe(detail, path)),
      kind_(kind),
      detail_(std::move(detail)),
      path_(std::move(path)),
      key_(std::move(key)),
      offset_(offset) {}

DecodingError DecodingError::keyNotFound(std::string_view key) {
  std::string detail = "No value associated with key \"";
  detail.append(key).append("\"");
  return DecodingError(Kind::keyNotFound, std::move(detail), {}, std::string(key), std::nullopt);
}

DecodingError DecodingError::typeMismatch(std::string_view expected, std::string_view found) {
  std::string detail = "Expected ";
  detail.append(expected).append(" but found ").append(found);
  return DecodingError(Kind::typeMismatch, std::move(detail), {}, {}, std::nullopt);
}

DecodingError DecodingError::dataCorrupted(std::string_view description,
                                           std::optional<std::size_t> offset) {
  return DecodingError(Kind::dataCorrupted, std::string(description), {}, {}, offset);
}

DecodingError DecodingError::nested(std::string_view key) const {
  std::string path(key);
  if (!path_.empty()) path.append(".").append(path_);
  return DecodingError(kind_, detail_, std::move(path), key_, offset_);
}

// ---- UTF-8 --------------------------------------------------------------------------------------

namespace {
struct NullOutput {
  void Put(char) {}
};

// Eight bytes at a time: almost every string an SDK writes is ASCII.
bool isASCII(std::string_view text) noexcept {
  const char* p = text.data();
  std::size_t n = text.size();
  std::uint64_t high = 0;
  for (; n >= 8; p += 8, n -= 8) {
    std::uint64_t word;
    std::memcpy(&word, p, 8);
    high |= word;
  }
  for (; n > 0; ++p, --n) high |= static_cast<unsigned char>(*p);
  return (high & 0x8080808080808080ull) == 0;
}

// Length of the valid UTF-8 sequence at the start of `text`, or 0 when it is invalid.
std::size_t validSequenceLength(std::string_view text) {
  rapidjson::MemoryStream stream(text.data(), text.size());
  NullOutput sink;
  if (!rapidjson::UTF8<char>::Validate(stream, sink)) return 0;
  return stream.Tell();
}

// Replaces each byte that does not start a valid sequence with U+FFFD, so that text built from
// arbitrary host bytes is always valid JSON.
std::string repairUTF8(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 8);
  while (!text.empty()) {
    std::size_t n = validSequenceLength(text);
    if (n == 0) {
      out.append("\xEF\xBF\xBD");
      n = 1;
    } else {
      out.append(text.substr(0, n));
    }
    text.remove_prefix(n);
  }
  return out;
}

// ---- Text encoder -------------------------------------------------------------------------------

// Whether `text` is ASCII without a byte that JSON text escapes (below 0x20, '"', '\\'): then
// its JSON form is the text between quotes. Eight bytes at a time, as keys and most values are.
// Inlined into each writer: a call per key and string costs more than the check itself.
[[gnu::always_inline]] inline bool isPlainText(std::string_view text) noexcept {
  constexpr std::uint64_t ones = 0x0101010101010101ull;
  constexpr std::uint64_t highs = 0x8080808080808080ull;
  // High bits of `w` where a byte is not plain. A byte below n (n <= 128) is found exactly for
  // words without high bits, and a word with one fails anyway.
  auto unplain = [](std::uint64_t w) {
    auto hasLess = [](std::uint64_t v, std::uint64_t n) { return (v - ones * n) & ~v & highs; };
    return (w & highs) | hasLess(w, 0x20) | hasLess(w ^ (ones * '"'), 1) |
           hasLess(w ^ (ones * '\\'), 1);
  };
  const char* p = text.data();
  const std::size_t n = text.size();
  std::uint64_t word;
  if (n < 8) {
    // Short text as one word, from loads that overlap rather than a copy of variable length
    // (which costs a call); the rest of the word is a plain byte.
    word = ones * 'a';
    if (n >= 4) {
      std::uint32_t low, high;
      std::memcpy(&low, p, 4);
      std::memcpy(&high, p + n - 4, 4);
      word = low | static_cast<std::uint64_t>(high) << 32;
    } else if (n > 0) {
      const auto byte = [&](std::size_t i) {
        return std::uint64_t{static_cast<unsigned char>(p[i])};
      };
      word = (word & ~0xFFFFFFull) | byte(0) | byte(n / 2) << 8 | byte(n - 1) << 16;
    }
    return unplain(word) == 0;
  }
  std::uint64_t found = 0;
  for (std::size_t i = 0; i + 8 <= n; i += 8) {
    std::memcpy(&word, p + i, 8);
    found |= unplain(word);
  }
  // The last eight bytes, overlapping the words above when the size is not a multiple of 8.
  std::memcpy(&word, p + n - 8, 8);
  return (found | unplain(word)) == 0;
}

// RapidJSON's compact writer, with one shortcut: a key or value whose JSON text is known without
// escaping (plain text, numbers, literals) goes into the buffer in one reservation and one copy,
// separator included, instead of byte by byte. Same bytes and the same misuse checks either way.
class CompactWriter : public rapidjson::Writer<rapidjson::StringBuffer> {
 public:
  using Writer::Writer;

  // A key or string value whose text is plain.
  void PlainString(std::string_view text) { Piece(text, true, rapidjson::kStringType); }
  // A whole value given as JSON text.
  void RawText(std::string_view text) { Piece(text, false, rapidjson::kObjectType); }
  // A number, true, false or null given as its JSON text.
  void Literal(std::string_view text, rapidjson::Type type) { Piece(text, false, type); }

 private:
  // What Prefix() and the value's own writer do, fused.
  void Piece(std::string_view text, bool quoted, rapidjson::Type type) {
    char separator = 0;
    if (RAPIDJSON_LIKELY(level_stack_.GetSize() != 0)) {
      Level* level = level_stack_.template Top<Level>();
      const bool name = !level->inArray && level->valueCount % 2 == 0;
      if (name) RAPIDJSON_ASSERT(type == rapidjson::kStringType);
      if (level->valueCount > 0) separator = level->inArray || name ? ',' : ':';
      ++level->valueCount;
    } else {
      RAPIDJSON_ASSERT(!hasRoot_);
      hasRoot_ = true;
    }
    const std::size_t quotes = quoted ? 2 : 0;
    char* out = os_->Push(text.size() + quotes + (separator != 0 ? 1 : 0));
    if (separator != 0) *out++ = separator;
    if (quoted) *out++ = '"';
    std::memcpy(out, text.data(), text.size());
    if (quoted) out[text.size()] = '"';
    EndValue(true);
  }
};

class TextEncoder final : public Encoder {
 public:
  TextEncoder() : writer_(buffer_) {}

  void writeNull() override { writer_.Literal("null", rapidjson::kNullType); }
  void writeBool(bool value) override {
    if (value) {
      writer_.Literal("true", rapidjson::kTrueType);
    } else {
      writer_.Literal("false", rapidjson::kFalseType);
    }
  }
  void writeDecimal(const Decimal& value) override {
    char text[Decimal::maxTextLength];
    writer_.Literal({text, value.write(text)}, rapidjson::kNumberType);
  }
  void writeInt(std::int64_t value) override {
    char text[21];
    const char* end = rapidjson::internal::i64toa(value, text);
    writer_.Literal({text, static_cast<std::size_t>(end - text)}, rapidjson::kNumberType);
  }
  void writeUInt(std::uint64_t value) override {
    char text[21];
    const char* end = rapidjson::internal::u64toa(value, text);
    writer_.Literal({text, static_cast<std::size_t>(end - text)}, rapidjson::kNumberType);
  }
  void writeDouble(double value) override {
    if (auto decimal = Decimal::fromDouble(value)) {
      writeDecimal(*decimal);
    } else {
      fail("double(" + std::to_string(value) + ")");
      writer_.Null();
    }
  }
  void writeString(std::string_view value) override {
    if (isPlainText(value)) {
      writer_.PlainString(value);
    } else {
      writeEscaped(value);
    }
  }
  void beginObject() override {
    enter();
    writer_.StartObject();
  }
  void writeKey(std::string_view key) override {
    if (isPlainText(key)) {
      writer_.PlainString(key);
    } else {
      writeEscaped(key);
    }
  }
  void writePlainKey(PlainKey key) override { writer_.PlainString(key.text()); }
  void endObject() override {
    --depth_;
    writer_.EndObject();
  }
  void beginArray() override {
    enter();
    writer_.StartArray();
  }
  void endArray() override {
    --depth_;
    writer_.EndArray();
  }
  void fail(std::string_view reason) override {
    if (!failure_) failure_ = std::string(reason);
  }
  void writeJSONText(std::string_view text) override { writer_.RawText(text); }

  // Ready for the next value that may nest `maxDepth` levels; keeps the buffer's memory.
  void reset(int maxDepth) {
    buffer_.Clear();
    writer_.Reset(buffer_);
    failure_.reset();
    depth_ = 0;
    maxDepth_ = maxDepth;
  }

  // The finished text; throws JSONError when the value could not be encoded.
  std::string_view finish() {
    if (failure_) throw JSONError::nonJSONType(*failure_);
    if (!writer_.IsComplete()) throw JSONError::nonJSONType("an incomplete JSON value");
    return {buffer_.GetString(), buffer_.GetSize()};
  }

 private:
  // A key or string value that needs escapes or repair. Out of line: it keeps the common case
  // of the two callers small.
  [[gnu::noinline]] void writeEscaped(std::string_view text) {
    if (isValidUTF8(text)) {
      writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    } else {
      std::string repaired = repairUTF8(text);
      writer_.String(repaired.data(), static_cast<rapidjson::SizeType>(repaired.size()));
    }
  }
  // Throws rather than marking a failure: a value too deep for any reader may also be too deep
  // for the stack, so the encode functions above must stop recursing at once.
  void enter() {
    if (++depth_ > maxDepth_) {
      throw JSONError::nonJSONType("a value nested deeper than " + std::to_string(maxDepth_) +
                                   " levels");
    }
  }

  rapidjson::StringBuffer buffer_;
  CompactWriter writer_;
  std::optional<std::string> failure_;
  int depth_ = 0;
  int maxDepth_ = JSON::maxNestingDepth;
};

// Re-indents compact text; numbers pass through as their exact text.
class PrettyHandler : public rapidjson::PrettyWriter<rapidjson::StringBuffer> {
 public:
  explicit PrettyHandler(rapidjson::StringBuffer& buffer) : PrettyWriter(buffer) {
    SetIndent(' ', 2);
  }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
    return RawValue(text, length, rapidjson::kNumberType);
  }
};

// ---- Text reader --------------------------------------------------------------------------------

// RapidJSON turns a lone low surrogate escape ("\udc00") into the three bytes ED B0 80, which are
// not UTF-8. Input bytes were validated, so such bytes can only have come from an escape.
bool hasLoneLowSurrogate(const char* text, rapidjson::SizeType length) {
  const char* const end = text + length;
  for (const char* p = text; (p = static_cast<const char*>(std::memchr(p, 0xED, end - p)));) {
    if (++p != end && static_cast<unsigned char>(*p) >= 0xA0) return true;
  }
  return false;
}

// Builds a JSON value from SAX events; containers are collected on an explicit stack.
class Builder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Builder> {
 public:
  // Refuses text that nests arrays and objects deeper than `maxDepth` levels.
  explicit Builder(int maxDepth) : maxDepth_(maxDepth) {}

  bool Null() { return emit(JSON()); }
  bool Bool(bool value) { return emit(JSON(value)); }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
    auto decimal = Decimal::parse(std::string_view(text, length));
    if (!decimal) {
      error_ = "Number out of range (more than 38 digits or exponent beyond -128...127): " +
               std::string(text, length);
      return false;
    }
    return emit(JSON(*decimal));
  }
  bool String(const char* text, rapidjson::SizeType length, bool) {
    if (!checkSurrogates(text, length)) return false;
    return emit(JSON(std::string(text, length)));
  }
  bool StartObject() { return push(true); }
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    if (!checkSurrogates(text, length)) return false;
    stack_.back().key.assign(text, length);
    return true;
  }
  bool EndObject(rapidjson::SizeType) { return pop(); }
  bool StartArray() { return push(false); }
  bool EndArray(rapidjson::SizeType) { return pop(); }

  JSON take() { return std::move(result_); }
  const std::string& error() const { return error_; }

 private:
  struct Frame {
    bool isObject;
    JSON::List list;
    JSON::Map map;
    std::string key;
  };

  bool checkSurrogates(const char* text, rapidjson::SizeType length) {
    if (!hasLoneLowSurrogate(text, length)) return true;
    error_ = "A \\u escape names a lone surrogate";
    return false;
  }

  bool emit(JSON value) {
    if (stack_.empty()) {
      result_ = std::move(value);
    } else if (Frame& top = stack_.back(); top.isObject) {
      top.map.insert_or_assign(std::move(top.key), std::move(value));
      top.key.clear();
    } else {
      top.list.push_back(std::move(value));
    }
    return true;
  }
  bool push(bool isObject) {
    if (stack_.size() >= static_cast<std::size_t>(maxDepth_)) {
      error_ = "Nesting deeper than " + std::to_string(maxDepth_) + " levels";
      return false;
    }
    stack_.push_back(Frame{isObject, {}, {}, {}});
    return true;
  }
  bool pop() {
    Frame frame = std::move(stack_.back());
    stack_.pop_back();
    return frame.isObject ? emit(JSON(std::move(frame.map))) : emit(JSON(std::move(frame.list)));
  }

  std::vector<Frame> stack_;
  int maxDepth_;
  JSON result_;
  std::string error_;
};

// Each thread keeps one encoder so that encoding an event allocates only its result. An encode
// function that itself encodes (nested toString) gets a fresh one.
class EncoderLease {
 public:
  explicit EncoderLease(int maxDepth) {
    if (!busy) {
      busy = true;
      encoder_ = &cached();
    } else {
      own_.emplace();
      encoder_ = &*own_;
    }
    encoder_->reset(maxDepth);
  }
  ~EncoderLease() {
    if (!own_) busy = false;
  }
  EncoderLease(const EncoderLease&) = delete;
  EncoderLease& operator=(const EncoderLease&) = delete;
  TextEncoder& operator*() { return *encoder_; }

 private:
  static TextEncoder& cached() {
    thread_local TextEncoder encoder;
    return encoder;
  }
  static thread_local bool busy;
  std::optional<TextEncoder> own_;
  TextEncoder* encoder_;
};
thread_local bool EncoderLease::busy = false;
}  // namespace

bool isValidUTF8(std::string_view text) noexcept {
  if (isASCII(text)) return true;
  while (!text.empty()) {
    std::size_t n = validSequenceLength(text);
    if (n == 0) return false;
    text.remove_prefix(n);
  }
  return true;
}

void appendText(std::string& out, bool pretty, EncodeFunction encodeValue, const void* value,
                int maxDepth) {
  EncoderLease lease(maxDepth);
  TextEncoder& encoder = *lease;
  try {
    encodeValue(encoder, value);
  } catch (const std::logic_error& misuse) {
    throw JSONError::nonJSONType(misuse.what());
  }
  std::string_view compact = encoder.finish();
  if (!pretty) {
    out.append(compact);
    return;
  }
  rapidjson::StringBuffer buffer;
  PrettyHandler handler(buffer);
  rapidjson::Reader reader;
  rapidjson::MemoryStream stream(compact.data(), compact.size());
  reader.Parse<rapidjson::kParseNumbersAsStringsFlag>(stream, handler);
  out.append(buffer.GetString(), buffer.GetSize());
}

std::string_view kindName(JSON::Kind kind) noexcept {
  static constexpr std::string_view names[] = {"a bool",   "a number",  "a string",
                                               "an array", "an object", "null"};
  return names[static_cast<int>(kind)];
}

void throwTypeMismatch(std::string_view expected, const JSON& found) {
  throw DecodingError::typeMismatch(expected, kindName(found.kind()));
}

JSON JSON::parse(std::string_view text) {
  return parse(text, maxNestingDepth);
}

JSON JSON::parse(std::string_view text, int maxDepth) {
  Builder builder(std::min(maxDepth, maxNestingDepth));
  rapidjson::Reader reader;
  rapidjson::MemoryStream stream(text.data(), text.size());
  constexpr unsigned flags =
      rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseValidateEncodingFlag;
  rapidjson::ParseResult result = reader.Parse<flags>(stream, builder);
  // RapidJSON takes a NUL byte for the end of its input, so text after one would go unread.
  if (!result.IsError() && stream.Tell() != text.size()) {
    result.Set(rapidjson::kParseErrorDocumentRootNotSingular, stream.Tell());
  }
  if (result.IsError()) {
    std::string what = "Malformed JSON at byte " + std::to_string(result.Offset()) + ": ";
    what += builder.error().empty() ? rapidjson::GetParseError_En(result.Code()) : builder.error();
    throw DecodingError::dataCorrupted(what, result.Offset());
  }
  return builder.take();
}

// ---- Canonical text -----------------------------------------------------------------------------

namespace {

// Appends `text` as a JSON string, as the text encoder writes it (the text is valid UTF-8).
void appendEscaped(std::string& out, std::string_view text) {
  if (isPlainText(text)) {
    out.append(1, '"').append(text).append(1, '"');
    return;
  }
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  out.append(buffer.GetString(), buffer.GetSize());
}

// Writes what JSON::parse followed by toString() would, straight from the reader's events: numbers
// as their exact decimals, strings escaped as the encoder does, object members in key order with
// the last of equal keys kept. Fails (returns false) wherever the builder of JSON::parse fails.
class Canonicalizer : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Canonicalizer> {
 public:
  Canonicalizer(int maxDepth, std::size_t textSize) : maxDepth_(maxDepth) {
    out_.reserve(textSize);  // rarely longer than what it was read from
  }

  bool Null() { return scalar(JSON::Kind::null, "null"); }
  bool Bool(bool value) { return scalar(JSON::Kind::boolean, value ? "true" : "false"); }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
    auto decimal = Decimal::parse(std::string_view(text, length));
    if (!decimal) return false;
    char digits[Decimal::maxTextLength];
    return scalar(JSON::Kind::number, std::string_view(digits, decimal->write(digits)));
  }
  bool String(const char* text, rapidjson::SizeType length, bool) {
    if (hasLoneLowSurrogate(text, length)) return false;
    beginValue(JSON::Kind::string);
    appendEscaped(out_, std::string_view(text, length));
    return true;
  }
  bool StartObject() { return open(JSON::Kind::object, '{'); }
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    if (hasLoneLowSurrogate(text, length)) return false;
    Frame& frame = frames_.back();
    if (!frame.members.empty()) {
      frame.members.back().end = out_.size();
      out_.push_back(',');
    }
    frame.members.push_back(Member{std::string(text, length), out_.size(), 0});
    appendEscaped(out_, frame.members.back().key);
    out_.push_back(':');
    return true;
  }
  bool EndObject(rapidjson::SizeType) {
    Frame& frame = frames_.back();
    if (!frame.members.empty()) frame.members.back().end = out_.size();
    orderMembers(frame);
    out_.push_back('}');
    frames_.pop_back();
    return true;
  }
  bool StartArray() { return open(JSON::Kind::array, '['); }
  bool EndArray(rapidjson::SizeType) {
    out_.push_back(']');
    frames_.pop_back();
    return true;
  }

  std::string take() { return std::move(out_); }
  JSON::Kind rootKind() const noexcept { return rootKind_; }
  int depth() const noexcept { return depth_; }

 private:
  struct Member {
    std::string key;
    std::size_t start;  // where its text ("key":value) begins in out_
    std::size_t end;
  };
  struct Frame {
    bool isObject;
    std::size_t start;  // just after the opening bracket
    std::size_t count = 0;
    std::vector<Member> members;
  };

  void beginValue(JSON::Kind kind) {
    if (frames_.empty()) {
      rootKind_ = kind;
      return;
    }
    Frame& frame = frames_.back();
    if (!frame.isObject && frame.count++ > 0) out_.push_back(',');
  }
  bool scalar(JSON::Kind kind, std::string_view text) {
    beginValue(kind);
    out_.append(text);
    return true;
  }
  bool open(JSON::Kind kind, char bracket) {
    if (frames_.size() >= static_cast<std::size_t>(maxDepth_)) return false;
    beginValue(kind);
    out_.push_back(bracket);
    frames_.push_back(Frame{kind == JSON::Kind::object, out_.size(), 0, {}});
    depth_ = std::max(depth_, static_cast<int>(frames_.size()));
    return true;
  }
  // Members in key order, the last of equal keys kept, as a JSON::Map holds them.
  void orderMembers(Frame& frame) {
    auto& members = frame.members;
    bool ordered = true;
    for (std::size_t i = 1; i < members.size() && ordered; ++i) {
      ordered = members[i - 1].key < members[i].key;
    }
    if (ordered) return;
    std::vector<std::size_t> order(members.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return members[a].key < members[b].key; });
    std::string text;
    text.reserve(out_.size() - frame.start);
    for (std::size_t i = 0; i < order.size(); ++i) {
      // Of equal keys only the last written counts; stable_sort keeps them in written order.
      if (i + 1 < order.size() && members[order[i]].key == members[order[i + 1]].key) continue;
      if (!text.empty()) text.push_back(',');
      const Member& member = members[order[i]];
      text.append(out_, member.start, member.end - member.start);
    }
    out_.replace(frame.start, std::string::npos, text);
  }
  int maxDepth_;
  std::string out_;
  std::vector<Frame> frames_;
  JSON::Kind rootKind_ = JSON::Kind::null;
  int depth_ = 0;
};

}  // namespace

JSONText JSONText::parse(std::string_view text, int maxDepth) {
  Canonicalizer canonicalizer(std::min(maxDepth, JSON::maxNestingDepth), text.size());
  rapidjson::Reader reader;
  rapidjson::MemoryStream stream(text.data(), text.size());
  constexpr unsigned flags =
      rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseValidateEncodingFlag;
  const rapidjson::ParseResult result = reader.Parse<flags>(stream, canonicalizer);
  if (result.IsError() || stream.Tell() != text.size()) {
    // The builder refuses the same text and says why, in the same words.
    const JSON value = JSON::parse(text, maxDepth);
    // Not reached while the two agree.
    return JSONText(value.toString(), value.kind(), value.nestedDeeperThan(0) ? maxDepth : 0);
  }
  const JSON::Kind kind = canonicalizer.rootKind();
  const int depth = canonicalizer.depth();
  return JSONText(canonicalizer.take(), kind, depth);
}

void Encoder::writeJSONText(std::string_view text) {
  encode(*this, JSON::parse(text));
}

void encodeAny(Encoder& encoder, const std::any& value) {
  try {
    encoder.value(JSON::fromAny(value));
  } catch (const JSONError& error) {
    encoder.fail(error.type());
    encoder.writeNull();
  }
}

}  // namespace pelora
