// 9P2000.L on the wire: little-endian numbers and counted strings, in frames that begin with their
// size, a type and a tag. The numbers are stored as they lie in memory: this runs on x86-64.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

// Requests; the answer to each has the next number, or Rlerror.
enum Message : uint8_t {
    Rlerror = 7,
    Tstatfs = 8,
    Tlopen = 12,
    Tlcreate = 14,
    Tsymlink = 16,
    Tmknod = 18,
    Trename = 20,
    Treadlink = 22,
    Tgetattr = 24,
    Tsetattr = 26,
    Txattrwalk = 30,
    Txattrcreate = 32,
    Treaddir = 40,
    Tfsync = 50,
    Tlock = 52,
    Tgetlock = 54,
    Tlink = 70,
    Tmkdir = 72,
    Trenameat = 74,
    Tunlinkat = 76,
    Tversion = 100,
    Tauth = 102,
    Tattach = 104,
    Tflush = 108,
    Twalk = 110,
    Tread = 116,
    Twrite = 118,
    Tclunk = 120,
    Tremove = 122,
};

constexpr uint32_t kHeaderBytes = 7;             // size, type, tag
constexpr uint32_t kIoHeaderBytes = 24;          // what a client leaves room for beside data
constexpr uint32_t kSmallestMessage = 4096;      // holds every answer that has no data
constexpr uint32_t kLargestMessage = 512 << 10;  // a client may ask for less
constexpr uint32_t kNoNumber = ~0u;              // no fid, no user

// What a client knows a file by.
struct Qid {
    uint8_t type;
    uint32_t version;
    uint64_t path;
};

// Takes fields off a request. After one that is not there good() is false and all others are empty.
class Reader {
public:
    explicit Reader(std::string_view rest) : rest_(rest) {}
    bool good() const { return good_; }

    uint8_t u8() { return number<uint8_t>(); }
    uint16_t u16() { return number<uint16_t>(); }
    uint32_t u32() { return number<uint32_t>(); }
    uint64_t u64() { return number<uint64_t>(); }

    std::string_view bytes(size_t count) {
        good_ = good_ && count <= rest_.size();
        if (!good_) return {};
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(count);
        return taken;
    }

    // A string with a NUL in it would be another one for the system.
    std::string string() {
        const std::string_view text = bytes(u16());
        good_ = good_ && text.find('\0') == std::string_view::npos;
        return good_ ? std::string(text) : std::string();
    }

    // Whether the rest is exactly these fields: b, h, w and q for numbers of 1, 2, 4 and 8 bytes, s
    // for a string, d for counted bytes, n for counted strings.
    bool hasShape(const char *shape) const {
        Reader rest(*this);
        for (; *shape != '\0'; shape++)
            rest.skip(*shape);
        return rest.good_ && rest.rest_.empty();
    }

private:
    void skip(char field) {
        switch (field) {
        case 'b':
            (void)u8();
            return;
        case 'h':
            (void)u16();
            return;
        case 'w':
            (void)u32();
            return;
        case 'q':
            (void)u64();
            return;
        case 'd':
            (void)bytes(u32());
            return;
        case 's':
            (void)string();
            return;
        default:
            for (uint16_t count = u16(); good_ && count > 0; count--)
                (void)string();
        }
    }

    template <class T>
    T number() {
        T value = 0;
        const std::string_view from = bytes(sizeof value);
        if (good_) std::memcpy(&value, from.data(), sizeof value);
        return value;
    }

    std::string_view rest_;
    bool good_ = true;
};

// Bytes on their way to a client. Grows to what it once needed and stays there.
class Outbox {
public:
    size_t waiting() const { return end_ - sent_; }
    const char *data() const { return bytes_.data() + sent_; }
    void sent(size_t count) {
        sent_ += count;
        if (sent_ == end_) sent_ = end_ = 0;
    }

    size_t end() const { return end_; }
    char *at(size_t offset) { return bytes_.data() + offset; }
    char *room(size_t count) {
        if (bytes_.size() - end_ < count) bytes_.resize(2 * (end_ + count));
        end_ += count;
        return at(end_ - count);
    }
    void cutTo(size_t end) { end_ = end; }

private:
    std::vector<char> bytes_;
    size_t sent_ = 0, end_ = 0;
};

// Appends one answer to an outbox.
class Writer {
public:
    Writer(Outbox *out, uint8_t type, uint16_t tag) : out_(*out), start_(out->end()), tag_(tag) {
        u32(0).u8(type).u16(tag);
    }

    Writer &u8(uint8_t value) { return number(value); }
    Writer &u16(uint16_t value) { return number(value); }
    Writer &u32(uint32_t value) { return number(value); }
    Writer &u64(uint64_t value) { return number(value); }
    Writer &string(std::string_view text) {
        u16(static_cast<uint16_t>(text.size()));
        std::memcpy(out_.room(text.size()), text.data(), text.size());
        return *this;
    }
    Writer &qid(const Qid &qid) { return u8(qid.type).u32(qid.version).u64(qid.path); }

    // Room for data, to be filled at once; giveBack() returns what was not needed of it.
    char *room(size_t count) { return out_.room(count); }
    void giveBack(size_t count) { out_.cutTo(out_.end() - count); }

    // Writes a number that was not known when its place came; offsets count from the frame's start.
    template <class T>
    void patch(size_t offset, T value) {
        std::memcpy(out_.at(start_ + offset), &value, sizeof value);
    }

    size_t size() const { return out_.end() - start_; }
    void fail(int error) {
        out_.cutTo(start_);
        u32(0).u8(Rlerror).u16(tag_).u32(static_cast<uint32_t>(error));
    }
    void finish() { patch(0, static_cast<uint32_t>(size())); }

private:
    template <class T>
    Writer &number(T value) {
        std::memcpy(out_.room(sizeof value), &value, sizeof value);
        return *this;
    }

    Outbox &out_;
    const size_t start_;
    const uint16_t tag_;
};
