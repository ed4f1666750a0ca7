// SPDX-License-Identifier: Apache-2.0
// The wire format between the socket IPC client and the peer daemon: one message per
// SOCK_SEQPACKET packet, a fixed little-endian header, then the kind's payload. Descriptors
// travel beside the bytes in SCM_RIGHTS; addresses never travel.
//
//   header     u16 version, u16 kind, u32 seq, u32 payload length
//   Ping       (empty)
//   Register   u32 flags, u32 count, count records; exactly count descriptors, in record order
//   record     i32 handle, u32 type, i64 size, 256-byte name (NUL-terminated, zero-padded)
//   Deregister u32 count, count i32 handles
//   Checksum   i32 handle            answer: u32 crc32 (zlib's crc32()), u64 bytes
//   Fill       i32 handle, u8 value  (writes value into every byte of the memory)
//   Holdings   (empty)               answer: u32 memories, u64 bytes, u32 staged, u64 staged bytes
//   Status     u32 client, i64 after answer: u8 more, u32 client, i64 after, text
//   Cancel     u32 batch             (undoes the registration batch whose first part had seq batch)
//   Faults     u32 op, text          answer: text, whatever the status (the peer's fault rules:
//                                    FaultOp; from a client of the peer's uid, of a peer that takes
//                                    faults)
//
// An answer has the request's kind with kAnswer set, the request's seq, and the payload
// i32 status (0 or a negative errno) followed, for status 0, by the kind's answer fields. The peer
// answers a connection's requests in order. Before it ends a connection of its own accord it may
// send a Closing answer (seq 0) whose status says why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vrocam {
namespace peer {

constexpr uint16_t kVersion = 1;

enum class Kind : uint16_t {
  Ping = 1,
  Register = 2,
  Deregister = 3,
  Checksum = 4,
  Fill = 5,
  Holdings = 6,
  Status = 7,
  Cancel = 8,
  Closing = 9,  // sent by the peer only, as an answer
  Faults = 10,
};

// What a Faults request does.
enum class FaultOp : uint32_t {
  Add = 1,      // adds the rule in text; the answer's text says what is wrong with a bad one
  Clear = 2,    // drops every rule
  List = 3,     // the answer's text: the seed line, then one line per rule with its counts
  Release = 4,  // sends the answers that hold rules keep
};
constexpr uint16_t kAnswer = 0x8000;
// The kind's name in lower case ("register"), or "unknown".
const char* kindName(Kind kind);
constexpr uint16_t answerKind(Kind kind) { return kAnswer | static_cast<uint16_t>(kind); }

constexpr size_t kHeaderSize = 12;
constexpr size_t kNameSize = 256;  // terminator included: names have at most 255 bytes
constexpr size_t kRecordSize = 16 + kNameSize;
constexpr size_t kMaxRecords = 64;    // records, and so descriptors, per Register message
constexpr size_t kMaxHandles = 1024;  // handles per Deregister message
constexpr size_t kMaxMessage = 32 * 1024;
constexpr size_t kMaxFds = 253;  // the kernel's own limit per message
// Room for text in a Status answer.
constexpr size_t kStatusPage = kMaxMessage - kHeaderSize - 4 - 1 - 4 - 8;
// The lowest status that is a negative errno; anything below, or above 0, is no answer.
constexpr int32_t kLowestErrno = -4095;

// Register flags. A batch larger than one message is sent as parts: every part but the last has
// kMore (the peer stages it), every part but the first has kContinue. The last part commits the
// whole batch; a failure in any part drops the whole batch.
constexpr uint32_t kMore = 1;
constexpr uint32_t kContinue = 2;

struct Record {
  int32_t handle = -1;
  uint32_t type = 0;
  int64_t size = 0;
  std::string name;
};

// Where a Status page starts: the client of that serial number (0: the first, after the peer's
// own lines), with its memories whose handle is above `after`. kClientLine: the client's own line
// is still to come.
struct StatusCursor {
  static constexpr int64_t kClientLine = INT64_MIN;
  uint32_t client = 0;
  int64_t after = kClientLine;
};

struct Request {
  Kind kind = Kind::Ping;
  uint32_t seq = 0;
  uint32_t flags = 0;            // Register
  std::vector<Record> records;   // Register
  std::vector<int32_t> handles;  // Deregister
  int32_t handle = -1;           // Checksum, Fill
  uint8_t value = 0;             // Fill
  StatusCursor cursor;           // Status
  uint32_t batch = 0;            // Cancel
  FaultOp op = FaultOp::List;    // Faults
  std::string text;              // Faults
};

// Decodes one request of size bytes that came with fdCount descriptors: 0, or -EBADMSG (short,
// empty, inconsistent or trailing bytes, a name without terminator, too many records or handles,
// more descriptors than records, descriptors with a kind that takes none), -EPROTONOSUPPORT (other
// version), -EOPNOTSUPP (unknown kind), -EBADF (fewer descriptors than records). out->kind and
// out->seq are set whenever the header could be read, so that an error answer can echo them.
int decodeRequest(const uint8_t* data, size_t size, size_t fdCount, Request* out);
// Encodes a request: the message's size, or 0 when it does not fit or a name is too long.
size_t encodeRequest(uint8_t* buffer, size_t capacity, const Request& request);

// An answer: the request's kind with kAnswer set, its seq, a status (0 or a negative errno) and,
// for status 0, the fields of its kind.
struct Answer {
  uint16_t kind = 0;
  uint32_t seq = 0;
  int32_t status = 0;
  uint32_t crc32 = 0;        // Checksum
  uint64_t bytes = 0;        // Checksum: bytes read; Holdings: bytes of the memories held
  uint32_t memories = 0;     // Holdings
  uint32_t staged = 0;       // Holdings: memories of a batch whose last part has not come
  uint64_t stagedBytes = 0;  // Holdings
  bool more = false;         // Status: another page follows, from `next`
  StatusCursor next;         // Status
  std::string text;          // Status; Faults, whatever the status
};

// Encodes an answer; the message's size, or 0 when it does not fit.
size_t encodeAnswer(uint8_t* buffer, size_t capacity, const Answer& answer);
// Decodes one answer: 0, or -EPROTO when it is not a well-formed answer of this version (a status
// above 0 or below kLowestErrno included).
int decodeAnswer(const uint8_t* data, size_t size, Answer* out);

// Appends little-endian values to a fixed buffer. A write past the end marks it failed.
class Writer {
 public:
  Writer(uint8_t* buffer, size_t capacity) : mBuf(buffer), mCap(capacity) {}
  // Starts a message; finish() fills in its payload length.
  void header(uint16_t kind, uint32_t seq);
  void u8(uint8_t value) { put(value, 1); }
  void u32(uint32_t value) { put(value, 4); }
  void i32(int32_t value) { put(static_cast<uint32_t>(value), 4); }
  void u64(uint64_t value) { put(value, 8); }
  void i64(int64_t value) { put(static_cast<uint64_t>(value), 8); }
  void bytes(const void* data, size_t size);
  // A record name field; a name of kNameSize bytes or more marks the writer failed.
  void name(const std::string& text);
  // The message's size, or 0 when it did not fit.
  size_t finish();

 private:
  void put(uint64_t value, size_t width) {
    if (mFailed || mCap - mUsed < width) {
      mFailed = true;
      return;
    }
    for (size_t i = 0; i < width; ++i) mBuf[mUsed++] = static_cast<uint8_t>(value >> (8 * i));
  }

  uint8_t* mBuf;
  size_t mCap;
  size_t mUsed = 0;
  bool mFailed = false;
};

// Reads little-endian values; a read past the end marks it failed and yields zeros.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
  uint8_t u8() { return static_cast<uint8_t>(get(1)); }
  uint16_t u16() { return static_cast<uint16_t>(get(2)); }
  uint32_t u32() { return static_cast<uint32_t>(get(4)); }
  int32_t i32() { return static_cast<int32_t>(u32()); }
  uint64_t u64() { return get(8); }
  int64_t i64() { return static_cast<int64_t>(u64()); }
  // A record name field: false when it holds no terminator.
  bool name(std::string* out);
  // The next size bytes as text.
  void text(size_t size, std::string* out);
  size_t left() const { return mFailed ? 0 : mSize - mUsed; }
  // Whether every read fitted and nothing is left over.
  bool done() const { return !mFailed && mUsed == mSize; }
  bool ok() const { return !mFailed; }

 private:
  uint64_t get(size_t width) {
    if (mFailed || mSize - mUsed < width) {
      mFailed = true;
      return 0;
    }
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value |= static_cast<uint64_t>(mData[mUsed++]) << (8 * i);
    return value;
  }

  const uint8_t* mData;
  size_t mSize;
  size_t mUsed = 0;
  bool mFailed = false;
};

}  // namespace peer
}  // namespace vrocam
