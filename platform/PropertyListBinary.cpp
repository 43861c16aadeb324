#include <algorithm>
#include <bit>
#include <cmath>
#include <utility>
#include <vector>

#include "common/Utf8.h"
#include "platform/PropertyListParts.h"

namespace tessard {

namespace {

constexpr std::size_t kTrailerSize = 32;
// Binary dates count seconds from the beginning of 2001.
constexpr double kEpochOffset = 978307200;

std::uint64_t bigEndian(std::string_view bytes) {
  std::uint64_t number = 0;
  for (const char byte : bytes) number = (number << 8) | static_cast<unsigned char>(byte);
  return number;
}

std::optional<std::string> fromUtf16(std::string_view bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 2) {
    auto point = static_cast<char32_t>(bigEndian(bytes.substr(at, 2)));
    if (point >= 0xdc00 && point < 0xe000) return std::nullopt;
    if (point >= 0xd800 && point < 0xdc00) {
      at += 2;
      if (at >= bytes.size()) return std::nullopt;
      const auto low = static_cast<char32_t>(bigEndian(bytes.substr(at, 2)));
      if (low < 0xdc00 || low >= 0xe000) return std::nullopt;
      point = 0x10000 + ((point - 0xd800) << 10) + (low - 0xdc00);
    }
    appendUtf8(text, point);
  }
  return text;
}

/// Reads objects by their numbers. Every offset, length and number is checked against the file before it is
/// used; the first fault ends the reading.
class Reader {
 public:
  Reader(std::string_view bytes, std::size_t valueLimit)
      : bytes_(bytes), valueLimit_(std::min(valueLimit, kPropertyListValueLimit)) {}

  Result<Value> read() {
    std::optional<Value> value;
    if (readTrailer()) value = object(top_);
    if (!value) return SystemError(0, "binary property list: " + fault_);
    return *std::move(value);
  }

 private:
  std::nullopt_t refuse(const char* reason) {
    if (fault_.empty()) fault_ = reason;
    return std::nullopt;
  }

  bool readTrailer() {
    if (bytes_.size() < kBinaryPropertyListMark.size() + kTrailerSize) {
      refuse("too short");
      return false;
    }
    const std::size_t trailer = bytes_.size() - kTrailerSize;
    offsetSize_ = static_cast<unsigned char>(bytes_[trailer + 6]);
    referenceSize_ = static_cast<unsigned char>(bytes_[trailer + 7]);
    const std::uint64_t count = bigEndian(bytes_.substr(trailer + 8, 8));
    top_ = bigEndian(bytes_.substr(trailer + 16, 8));
    const std::uint64_t table = bigEndian(bytes_.substr(trailer + 24, 8));
    const bool sizes = offsetSize_ >= 1 && offsetSize_ <= 8 && referenceSize_ >= 1 && referenceSize_ <= 8;
    const bool tableInside = table >= kBinaryPropertyListMark.size() && table <= trailer;
    if (!sizes || !tableInside || count == 0 || count > (trailer - table) / offsetSize_) {
      refuse("bad trailer");
      return false;
    }
    count_ = static_cast<std::size_t>(count);
    objects_ = bytes_.substr(0, static_cast<std::size_t>(table));
    offsets_ = bytes_.substr(static_cast<std::size_t>(table), count_ * offsetSize_);
    return true;
  }

  /// The next `length` bytes of the objects, absent when they are not all there.
  std::optional<std::string_view> take(std::size_t& at, std::uint64_t length) {
    if (at > objects_.size() || length > objects_.size() - at) return refuse("an object runs over the end");
    const std::string_view taken = objects_.substr(at, static_cast<std::size_t>(length));
    at += taken.size();
    return taken;
  }

  /// The length in the marker, or in the integer that follows it.
  std::optional<std::uint64_t> takeLength(std::size_t& at, unsigned low) {
    if (low != 0xf) return low;
    const auto marker = take(at, 1);
    if (!marker) return std::nullopt;
    const auto byte = static_cast<unsigned char>((*marker)[0]);
    if ((byte & 0xf0U) != 0x10 || (byte & 0xfU) > 3) return refuse("bad length");
    const auto number = take(at, std::uint64_t{1} << (byte & 0xfU));
    if (!number) return std::nullopt;
    return bigEndian(*number);
  }

  std::optional<Value> object(std::uint64_t index) {
    if (index >= count_) return refuse("a reference to an object that is not there");
    if (++values_ > valueLimit_) return refuse("too many values");
    const std::uint64_t offset =
        bigEndian(offsets_.substr(static_cast<std::size_t>(index) * offsetSize_, offsetSize_));
    if (offset < kBinaryPropertyListMark.size() || offset >= objects_.size()) return refuse("bad offset");
    auto at = static_cast<std::size_t>(offset);
    const auto marker = static_cast<unsigned char>(objects_[at++]);
    const unsigned low = marker & 0xfU;
    switch (marker >> 4) {
      case 0x0:
        if (low == 8 || low == 9) return Value(low == 9);
        return refuse("a null or fill object");
      case 0x1:
        return integer(at, low);
      case 0x2:
        return real(at, low);
      case 0x3:
        return date(at, low);
      case 0x4:
        return data(at, low);
      case 0x5:
        return asciiString(at, low);
      case 0x6:
        return utf16String(at, low);
      case 0x8:
        return refuse("a UID, which is no property-list value here");
      case 0xa:
      case 0xd:
        return container(index, at, low, marker >> 4 == 0xd);
      default:
        return refuse("an object of an unknown kind");
    }
  }

  std::optional<Value> integer(std::size_t at, unsigned low) {
    if (low > 4) return refuse("an integer of an unknown size");
    const auto bytes = take(at, std::uint64_t{1} << low);
    if (!bytes) return std::nullopt;
    // One, two and four bytes have no sign, eight and sixteen have.
    if (low < 4) return Value(static_cast<std::int64_t>(bigEndian(*bytes)));
    const auto high = static_cast<std::int64_t>(bigEndian(bytes->substr(0, 8)));
    const auto number = static_cast<std::int64_t>(bigEndian(bytes->substr(8)));
    if (high != (number < 0 ? -1 : 0)) return refuse("an integer that does not fit in 64 bits");
    return Value(number);
  }

  std::optional<Value> real(std::size_t at, unsigned low) {
    if (low != 2 && low != 3) return refuse("a real of an unknown size");
    const auto bytes = take(at, low == 2 ? 4 : 8);
    if (!bytes) return std::nullopt;
    const std::uint64_t bits = bigEndian(*bytes);
    if (low == 2) return Value(static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits))));
    return Value(std::bit_cast<double>(bits));
  }

  std::optional<Value> date(std::size_t at, unsigned low) {
    if (low != 3) return refuse("a date of an unknown size");
    const auto bytes = take(at, 8);
    if (!bytes) return std::nullopt;
    const double seconds = std::bit_cast<double>(bigEndian(*bytes));
    // Whole seconds and the fraction apart, since a double cannot hold all microseconds of far years.
    const double whole = std::floor(seconds);
    constexpr double kFarthest = 4e11;
    if (!(std::abs(whole) < kFarthest)) return refuse("a date out of range");
    const auto fraction = static_cast<std::int64_t>(std::llround((seconds - whole) * 1e6));
    const Date date{static_cast<std::int64_t>(whole + kEpochOffset) * 1000000 + fraction};
    if (!textOfDate(date)) return refuse("a date out of range");
    return Value(date);
  }

  /// The bytes of a string or of data, counted against what a list may hold in all.
  std::optional<std::string_view> content(std::size_t at, unsigned low, unsigned unit) {
    const auto length = takeLength(at, low);
    if (!length) return std::nullopt;
    if (*length > objects_.size()) return refuse("an object runs over the end");
    const auto bytes = take(at, *length * unit);
    if (!bytes) return std::nullopt;
    content_ += bytes->size();
    if (content_ > kPropertyListContentLimit) return refuse("too much content");
    return bytes;
  }

  std::optional<Value> data(std::size_t at, unsigned low) {
    const auto bytes = content(at, low, 1);
    if (!bytes) return std::nullopt;
    return Value(Data{std::string(*bytes)});
  }

  std::optional<Value> asciiString(std::size_t at, unsigned low) {
    const auto bytes = content(at, low, 1);
    if (!bytes) return std::nullopt;
    const bool ascii = std::all_of(bytes->begin(), bytes->end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (!ascii) return refuse("a string with a byte that is not ASCII");
    return Value(*bytes);
  }

  std::optional<Value> utf16String(std::size_t at, unsigned low) {
    const auto bytes = content(at, low, 2);
    if (!bytes) return std::nullopt;
    auto text = fromUtf16(*bytes);
    if (!text) return refuse("a string that is not UTF-16");
    return Value(*std::move(text));
  }

  std::optional<Value> container(std::uint64_t index, std::size_t at, unsigned low, bool isDictionary) {
    if (std::find(open_.begin(), open_.end(), index) != open_.end())
      return refuse("a value that holds itself");
    if (open_.size() >= kPropertyListDepthLimit) return refuse("values are nested too deep");
    const auto count = takeLength(at, low);
    if (!count) return std::nullopt;
    if (*count > objects_.size()) return refuse("an object runs over the end");
    const auto references = take(at, *count * referenceSize_ * (isDictionary ? 2 : 1));
    if (!references) return std::nullopt;
    open_.push_back(index);
    auto value = isDictionary ? dictionary(*references, *count) : array(*references, *count);
    open_.pop_back();
    return value;
  }

  std::uint64_t referenceIn(std::string_view references, std::uint64_t number) const {
    return bigEndian(references.substr(static_cast<std::size_t>(number) * referenceSize_, referenceSize_));
  }

  std::optional<Value> array(std::string_view references, std::uint64_t count) {
    Array values;
    for (std::uint64_t i = 0; i < count; ++i) {
      auto value = object(referenceIn(references, i));
      if (!value) return std::nullopt;
      values.push_back(*std::move(value));
    }
    return Value(std::move(values));
  }

  std::optional<Value> dictionary(std::string_view references, std::uint64_t count) {
    Dictionary values;
    for (std::uint64_t i = 0; i < count; ++i) {
      auto key = object(referenceIn(references, i));
      if (!key) return std::nullopt;
      if (!key->asString()) return refuse("a key that is no string");
      if (values.contains(*key->asString())) return refuse("a doubled key");
      auto value = object(referenceIn(references, count + i));
      if (!value) return std::nullopt;
      values.set(*key->asString(), *std::move(value));
    }
    return Value(std::move(values));
  }

  std::string_view bytes_;
  std::size_t valueLimit_;
  std::string_view objects_;
  std::string_view offsets_;
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::size_t count_ = 0;
  std::uint64_t top_ = 0;
  std::size_t values_ = 0;
  std::size_t content_ = 0;
  std::vector<std::uint64_t> open_;
  std::string fault_;
};

}  // namespace

Result<Value> parseBinaryPropertyList(std::string_view bytes, std::size_t valueLimit) {
  return Reader(bytes, valueLimit).read();
}

}  // namespace tessard
