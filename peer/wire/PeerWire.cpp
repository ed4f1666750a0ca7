// SPDX-License-Identifier: Apache-2.0
// The wire format: encoding and decoding.
#include "PeerWire.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace vrocam {
namespace peer {

const char* kindName(Kind kind) {
  constexpr const char* kNames[] = {"ping",     "register", "deregister", "checksum", "fill",
                                    "holdings", "status",   "cancel",     "closing",  "faults"};
  const auto index = static_cast<size_t>(kind) - 1;
  return index < std::size(kNames) ? kNames[index] : "unknown";
}

void Writer::header(uint16_t kind, uint32_t seq) {
  mUsed = 0;
  mFailed = false;
  put(kVersion, 2);
  put(kind, 2);
  put(seq, 4);
  put(0, 4);  // payload length, set by finish()
}

void Writer::bytes(const void* data, size_t size) {
  if (mFailed || mCap - mUsed < size) {
    mFailed = true;
    return;
  }
  if (size != 0) memcpy(mBuf + mUsed, data, size);
  mUsed += size;
}

void Writer::name(const std::string& text) {
  const size_t length = strnlen(text.c_str(), text.size());
  if (length >= kNameSize || mFailed || mCap - mUsed < kNameSize) {
    mFailed = true;
    return;
  }
  memset(mBuf + mUsed, 0, kNameSize);
  memcpy(mBuf + mUsed, text.data(), length);
  mUsed += kNameSize;
}

size_t Writer::finish() {
  if (mFailed || mUsed < kHeaderSize) return 0;
  const uint64_t length = mUsed - kHeaderSize;
  for (size_t i = 0; i < 4; ++i) mBuf[8 + i] = static_cast<uint8_t>(length >> (8 * i));
  return mUsed;
}

bool Reader::name(std::string* out) {
  if (mFailed || mSize - mUsed < kNameSize) {
    mFailed = true;
    return false;
  }
  const void* end = memchr(mData + mUsed, '\0', kNameSize);
  if (end == nullptr) return false;
  const char* text = reinterpret_cast<const char*>(mData + mUsed);
  out->assign(text, static_cast<const char*>(end) - text);
  mUsed += kNameSize;
  return true;
}

void Reader::text(size_t size, std::string* out) {
  if (mFailed || mSize - mUsed < size) {
    mFailed = true;
    return;
  }
  out->assign(reinterpret_cast<const char*>(mData + mUsed), size);
  mUsed += size;
}

namespace {

// Reads the header; the payload length must match what follows it exactly.
int readHeader(Reader& in, size_t size, uint16_t* kind, uint32_t* seq) {
  const uint16_t version = in.u16();
  *kind = in.u16();
  *seq = in.u32();
  const uint32_t length = in.u32();
  if (!in.ok()) return -EBADMSG;
  if (version != kVersion) return -EPROTONOSUPPORT;
  if (length != size - kHeaderSize) return -EBADMSG;
  return 0;
}

int decodeRecords(Reader& in, size_t fdCount, Request* out) {
  out->flags = in.u32();
  const uint32_t count = in.u32();
  if (!in.ok() || count > kMaxRecords || in.left() != size_t{count} * kRecordSize) return -EBADMSG;
  if (fdCount > count) return -EBADMSG;
  out->records.resize(count);
  for (Record& record : out->records) {
    record.handle = in.i32();
    record.type = in.u32();
    record.size = in.i64();
    if (!in.name(&record.name)) return -EBADMSG;
  }
  if (fdCount < count) return -EBADF;
  return 0;
}

int decodeHandles(Reader& in, Request* out) {
  const uint32_t count = in.u32();
  if (!in.ok() || count > kMaxHandles || in.left() != size_t{count} * 4) return -EBADMSG;
  out->handles.resize(count);
  for (int32_t& handle : out->handles) handle = in.i32();
  return 0;
}

}  // namespace

int decodeRequest(const uint8_t* data, size_t size, size_t fdCount, Request* out) {
  // Reset field by field: the vectors keep their capacity for the next message.
  out->flags = 0;
  out->records.clear();
  out->handles.clear();
  out->handle = -1;
  out->value = 0;
  out->cursor = StatusCursor();
  out->batch = 0;
  out->op = FaultOp::List;
  out->text.clear();
  Reader in(data, size);
  uint16_t kind = 0;
  const int header = readHeader(in, size, &kind, &out->seq);
  out->kind = static_cast<Kind>(kind);
  if (header != 0) return header;

  int result = 0;
  switch (out->kind) {
    case Kind::Ping:
    case Kind::Holdings:
      break;
    case Kind::Register:
      result = decodeRecords(in, fdCount, out);
      break;
    case Kind::Deregister:
      result = decodeHandles(in, out);
      break;
    case Kind::Checksum:
      out->handle = in.i32();
      break;
    case Kind::Fill:
      out->handle = in.i32();
      out->value = in.u8();
      break;
    case Kind::Status:
      out->cursor.client = in.u32();
      out->cursor.after = in.i64();
      break;
    case Kind::Cancel:
      out->batch = in.u32();
      break;
    case Kind::Faults:
      out->op = static_cast<FaultOp>(in.u32());
      in.text(in.left(), &out->text);
      break;
    default:
      return -EOPNOTSUPP;
  }
  if (result != 0) return result;
  if (!in.done()) return -EBADMSG;
  if (out->kind != Kind::Register && fdCount != 0) return -EBADMSG;
  return 0;
}

size_t encodeRequest(uint8_t* buffer, size_t capacity, const Request& request) {
  Writer out(buffer, capacity);
  out.header(static_cast<uint16_t>(request.kind), request.seq);
  switch (request.kind) {
    case Kind::Register:
      out.u32(request.flags);
      out.u32(static_cast<uint32_t>(request.records.size()));
      for (const Record& record : request.records) {
        out.i32(record.handle);
        out.u32(record.type);
        out.i64(record.size);
        out.name(record.name);
      }
      break;
    case Kind::Deregister:
      out.u32(static_cast<uint32_t>(request.handles.size()));
      for (const int32_t handle : request.handles) out.i32(handle);
      break;
    case Kind::Checksum:
      out.i32(request.handle);
      break;
    case Kind::Fill:
      out.i32(request.handle);
      out.u8(request.value);
      break;
    case Kind::Status:
      out.u32(request.cursor.client);
      out.i64(request.cursor.after);
      break;
    case Kind::Cancel:
      out.u32(request.batch);
      break;
    case Kind::Faults:
      out.u32(static_cast<uint32_t>(request.op));
      out.bytes(request.text.data(), request.text.size());
      break;
    default:  // Ping, Holdings and the rest carry nothing
      break;
  }
  return out.finish();
}

size_t encodeAnswer(uint8_t* buffer, size_t capacity, const Answer& answer) {
  Writer out(buffer, capacity);
  out.header(answer.kind, answer.seq);
  out.i32(answer.status);
  if (answer.status == 0 && answer.kind == answerKind(Kind::Checksum)) {
    out.u32(answer.crc32);
    out.u64(answer.bytes);
  } else if (answer.status == 0 && answer.kind == answerKind(Kind::Holdings)) {
    out.u32(answer.memories);
    out.u64(answer.bytes);
    out.u32(answer.staged);
    out.u64(answer.stagedBytes);
  } else if (answer.status == 0 && answer.kind == answerKind(Kind::Status)) {
    out.u8(answer.more ? 1 : 0);
    out.u32(answer.next.client);
    out.i64(answer.next.after);
    out.bytes(answer.text.data(), answer.text.size());
  } else if (answer.kind == answerKind(Kind::Faults)) {
    out.bytes(answer.text.data(), answer.text.size());
  }
  return out.finish();
}

int decodeAnswer(const uint8_t* data, size_t size, Answer* out) {
  *out = Answer();
  Reader in(data, size);
  if (readHeader(in, size, &out->kind, &out->seq) != 0) return -EPROTO;
  out->status = in.i32();
  if ((out->kind & kAnswer) == 0 || out->status > 0 || out->status < kLowestErrno) return -EPROTO;
  if (out->status == 0 && out->kind == answerKind(Kind::Checksum)) {
    out->crc32 = in.u32();
    out->bytes = in.u64();
  } else if (out->status == 0 && out->kind == answerKind(Kind::Holdings)) {
    out->memories = in.u32();
    out->bytes = in.u64();
    out->staged = in.u32();
    out->stagedBytes = in.u64();
  } else if (out->status == 0 && out->kind == answerKind(Kind::Status)) {
    const uint8_t more = in.u8();
    out->next.client = in.u32();
    out->next.after = in.i64();
    in.text(in.left(), &out->text);
    if (more > 1) return -EPROTO;
    out->more = more == 1;
  } else if (out->kind == answerKind(Kind::Faults)) {
    in.text(in.left(), &out->text);
  }
  return in.done() ? 0 : -EPROTO;
}

}  // namespace peer
}  // namespace vrocam
