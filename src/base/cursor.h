// The one reader and the one writer for bytes (or wider units) whose length somebody else chose.
//
// Both carry their bound. An access that would cross it reads zero or writes nothing, and ok() is
// false from then on. So a parser may read a whole record and check once. Multi-byte integers are
// big-endian, as on the wire.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace msgapi {

template <typename Unit>
class Reader {
 public:
  explicit Reader(std::span<const Unit> units, size_t offset = 0)
      : units_(units), offset_(offset), ok_(offset <= units.size()) {
    if (!ok_) offset_ = units.size();
  }

  bool ok() const { return ok_; }
  size_t offset() const { return offset_; }
  size_t left() const { return units_.size() - offset_; }
  // What has not been read yet.
  std::span<const Unit> rest() const { return units_.subspan(offset_); }

  Unit next() {
    if (left() == 0) {
      ok_ = false;
      return 0;
    }
    return units_[offset_++];
  }

  // The next `count` units; empty when there are fewer.
  std::span<const Unit> take(size_t count) {
    if (count > left()) {
      ok_ = false;
      return {};
    }
    const std::span<const Unit> taken = units_.subspan(offset_, count);
    offset_ += count;
    return taken;
  }

  uint16_t be16() {
    static_assert(sizeof(Unit) == 1);
    const std::span<const Unit> bytes = take(2);
    return bytes.empty() ? uint16_t{0} : static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
  }

  uint32_t be32() {
    const uint32_t high = be16();
    return high << 16 | be16();
  }

 private:
  std::span<const Unit> units_;
  size_t offset_;
  bool ok_;
};

template <typename Unit>
class Writer {
 public:
  explicit Writer(std::span<Unit> out, size_t offset = 0)
      : out_(out), offset_(offset), ok_(offset <= out.size()) {
    if (!ok_) offset_ = out.size();
  }

  bool ok() const { return ok_; }
  size_t offset() const { return offset_; }
  size_t left() const { return out_.size() - offset_; }
  // What has been written.
  std::span<const Unit> written() const { return out_.first(offset_); }

  // What may still be written, for loops that know their own bound; advance() then takes it.
  std::span<Unit> rest() const { return out_.subspan(offset_); }
  bool advance(size_t count) {
    if (count > left()) return ok_ = false;
    offset_ += count;
    return ok_;
  }

  bool put(Unit unit) {
    if (left() == 0) return ok_ = false;
    out_[offset_++] = unit;
    return ok_;
  }

  // All of `units` or none of them.
  bool put_all(std::span<const Unit> units) {
    if (units.size() > left()) return ok_ = false;
    if (!units.empty()) std::memcpy(&out_[offset_], units.data(), units.size_bytes());
    offset_ += units.size();
    return ok_;
  }

  // The first `count` of `units`. All N may be written where there is room for them, which lets the
  // compiler move them at once; what is put next overwrites the rest.
  template <size_t N>
  bool put_first(const Unit (&units)[N], size_t count) {
    if (left() < N) return put_all({units, count});
    std::memcpy(&out_[offset_], units, sizeof units);
    offset_ += count;
    return ok_;
  }

  bool put_text(std::string_view text) {
    static_assert(sizeof(Unit) == 1);
    return put_all({reinterpret_cast<const Unit *>(text.data()), text.size()});
  }

  bool be16(uint16_t value) {
    static_assert(sizeof(Unit) == 1);
    const Unit bytes[] = {static_cast<Unit>(value >> 8), static_cast<Unit>(value & 0xFF)};
    return put_all(bytes);
  }

  bool be32(uint32_t value) {
    static_assert(sizeof(Unit) == 1);
    const Unit bytes[] = {static_cast<Unit>(value >> 24), static_cast<Unit>(value >> 16 & 0xFF),
                          static_cast<Unit>(value >> 8 & 0xFF), static_cast<Unit>(value & 0xFF)};
    return put_all(bytes);
  }

 private:
  std::span<Unit> out_;
  size_t offset_;
  bool ok_;
};

using ByteReader = Reader<uint8_t>;
using ByteWriter = Writer<uint8_t>;
using TextWriter = Writer<char>;

}  // namespace msgapi
