#include "services/cache_file_posix/save.h"

#include <cerrno>

#include "quenor_base/platform/local_log.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

void Base::Adopt(NothrowArray<Packet>* adopted) {
  packets.swap(*adopted);
  bytes = 0;
  for (const Packet& packet : packets) bytes += kRecordHeaderSize + packet.size;
}

void FailureLog::Tell(const char* what, int error) {
  if (told_ && error_ == error) return;
  told_ = true;
  error_ = error;
  LocalLog(2, "services/cache_file_posix/save", __LINE__,
           "cache: cannot %s %s: %s; its old content stays", what, path_.c_str(),
           cache_io::ErrnoText(error).c_str());
}

void Save::End() {
  if (state_ == State::kOpen) {
    base_.packets.swap(saved_);
    base_.bytes = saved_bytes_;
    base_.sealed = false;
  } else if (state_ == State::kVoid) {
    KeepWhatWasWritten();
  }
}

void Save::Void() {
  state_ = State::kVoid;
  saved_.Clear();
  saved_bytes_ = 0;
}

bool Save::Begin() {
  if (!index_.Build(base_.packets)) {
    failures_.Tell("begin a save in", ENOMEM);
    return false;
  }
  first_new_number_ = journal_.last_number() + 1;
  in_file_ = 0;
  state_ = State::kOpen;
  return true;
}

bool Save::Add(const uint8_t* data, uint32_t size, bool* not_on_disk) {
  if (state_ != State::kOpen) return false;
  state_ = State::kVoid;  // Unless it succeeds.
  if (data == nullptr && size > 0) return false;
  if (!saved_.Reserve(saved_.size() + 1)) {
    failures_.Tell("save to", ENOMEM);
    return false;
  }
  const Digest digest = DigestOf(data, size, digest_key_);
  const uint32_t position = index_.Take(base_.packets, digest, size);
  if (position == kNoPosition) {
    if (!WritePacket(data, size, digest, not_on_disk)) return false;
  } else {
    // A recovery puts what is not named behind what is, in the order of the base.
    const bool breaks_order = in_file_ < saved_.size() && position < last_position_;
    if (breaks_order && !WriteOrder()) return false;
    last_position_ = position;
    static_cast<void>(saved_.Push(base_.packets[position]));
  }
  saved_bytes_ += kRecordHeaderSize + size;
  state_ = State::kOpen;
  return true;
}

bool Save::WriteOrder() {
  if (!journal_.WriteOrder(saved_.begin() + in_file_, saved_.end())) {
    failures_.Tell("save to", errno);
    return false;
  }
  in_file_ = saved_.size();
  return true;
}

bool Save::WritePacket(const uint8_t* data, uint32_t size, const Digest& digest,
                       bool* not_on_disk) {
  Packet packet;
  const Journal::Written written =
      journal_.WritePacket(saved_.begin() + in_file_, saved_.end(), data, size, digest, &packet);
  if (written == Journal::Written::kNo) {
    failures_.Tell("save to", errno);
    return false;
  }
  static_cast<void>(saved_.Push(packet));  // There is room: Add() made it.
  in_file_ = saved_.size();
  *not_on_disk = written == Journal::Written::kNotOnDisk;
  if (*not_on_disk) failures_.Tell("get to the disk", errno);
  return !*not_on_disk;
}

bool Save::IsComplete() {
  if (state_ == State::kOpen && Seal(saved_)) {
    End();
    base_.sealed = true;
    state_ = State::kComplete;
  }
  return state_ == State::kNone || state_ == State::kComplete;
}

bool Save::Seal(const NothrowArray<Packet>& packets) {
  if (!journal_.WriteSeal(packets)) {
    failures_.Tell("complete the save in", errno);
    return false;
  }
  failures_.Forget();
  return true;
}

// Packets of a void save are in the file, and their senders were told so.
void Save::KeepWhatWasWritten() {
  for (const Packet& packet : saved_) {
    if (packet.number < first_new_number_) continue;
    // Without memory they stay in the file, and are only written once more by the next save.
    if (!base_.packets.Push(packet)) return;
    base_.bytes += kRecordHeaderSize + packet.size;
  }
}

}  // namespace cache_file
QUENOR_NAMESPACE_END
