// Sending and receiving of notify messages.
//
// One mutex keeps the bytes of a message together when several threads send. Receiving belongs to
// the event loop's thread alone. Nothing in the stream marks where a message begins, so each
// message must be read to its end, also when there is no memory to keep it.

#include "notify/connection.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "orputil.h"
#include "os/stream_reader.h"
#include "os/wait.h"
#include "uv/trace_point.h"

namespace msgapi::notify {
namespace {

constexpr uint32_t kWritableWait_ms = 10000;
constexpr uint32_t kMaxFailures = 9;
// When the first bytes of a head have arrived, the others follow at once; after this time they are
// missing.
constexpr uint32_t kHeadRest_ms = 1000;

pthread_mutex_t g_send_mutex = PTHREAD_MUTEX_INITIALIZER;
// Sends in a row that found the connection not writable. Also read outside the mutex.
constinit std::atomic<uint32_t> g_failures{0};

class SendLock {
 public:
  SendLock() { ::pthread_mutex_lock(&g_send_mutex); }
  SendLock(const SendLock &) = delete;
  SendLock &operator=(const SendLock &) = delete;
  ~SendLock() { ::pthread_mutex_unlock(&g_send_mutex); }
};

bool wait_writable(int fd, const NOTIFY_MSG &message) {
  const os::Readiness readiness = os::wait_writable_through_signals(fd, kWritableWait_ms);
  if (readiness == os::Readiness::kReady) return true;

  const int select_result = readiness == os::Readiness::kTimeout ? 0 : -1;
  const int error = errno;
  std::printf(
      "Send notify msg err %d:%d, type=0x%x, src=[%d], dest=[%d], ack=[%d], failed time = [%d]\n",
      select_result, error, message.msg_type, static_cast<int>(message.source_id),
      static_cast<int>(message.des_id), static_cast<int>(message.ack_tag),
      static_cast<int>(g_failures.fetch_add(1) + 1));
  return false;
}

Status write_message(int fd, const NOTIFY_MSG &message) {
  const auto *bytes = reinterpret_cast<const char *>(&message);
  const size_t size = sizeof message + message.data_len;
  for (size_t sent = 0; sent < size;) {
    // MSG_NOSIGNAL: the process may not ignore SIGPIPE.
    const ssize_t count = ::send(fd, bytes + sent, size - sent, MSG_NOSIGNAL);
    if (count >= 0) {
      sent += static_cast<size_t>(count);
      assert(sent <= size);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN) {
      // Somebody made the socket non-blocking. A begun message must be completed.
      (void)os::wait_writable_through_signals(fd, kWritableWait_ms);
      continue;
    }
    if (errno == EPIPE) {
      std::printf(
          "notifyclient fail to write notify: fd=%d, data_len=%u, send_len=%u, errno=EPIPE, "
          "ret=%d.\n",
          fd, message.data_len, static_cast<unsigned>(sent), static_cast<int>(count));
      return Status::kTimeout;
    }
    std::printf(
        "notifyclient fail to write notify: fd=%d, data_len=%u, send_len=%u, errno=%d, ret=%d.\n",
        fd, message.data_len, static_cast<unsigned>(sent), errno, static_cast<int>(count));
    return Status::kIo;
  }
  return Status::kOk;
}

void reboot_device() {
  std::printf("error: notifyclient failed more than 10 times, reboot devie!!");
  (void)ORP_UTIL_UpRootPrivileges();
  (void)ORP_UTIL_ExecCmdNoHang(__func__, __LINE__, "busybox reboot -f");
}

os::ReadPolicy patience(uint32_t timeout_ms) {
  return {.patience_ms = timeout_ms, .interrupted = os::Interrupted::kGoesOn};
}

Status report_silence(uint32_t timeout_ms) {
  std::printf("notifyclient: timeout to wait data when recv, timeout=%u, pid=%d", timeout_ms,
              static_cast<int>(::getpid()));
  return Status::kTimeout;
}

Status report_head_error(os::Piece piece) {
  const int error = errno;
  const int pid = ::getpid();
  const int count = static_cast<int>(piece.count);
  if (piece.end == os::ReadEnd::kPeerGone) {
    std::printf("error: notifyclient peer dead when read head, my pid=%d, errno=%d, ret=%d!\n", pid,
                error, count);
    return Status::kPeerGone;
  }
  std::printf("error: notifyclient fail to read head, my pid=%d, errno=%d, ret=%d!\n", pid, error,
              count);
  return Status::kIo;
}

Status read_head(int fd, uint32_t timeout_ms, NOTIFY_MSG *head) {
  const std::span<char> bytes(reinterpret_cast<char *>(head), sizeof *head);
  const os::Piece first = os::StreamReader(fd, patience(timeout_ms)).read_some(bytes);
  if (first.end == os::ReadEnd::kSilence) return report_silence(timeout_ms);
  if (first.end != os::ReadEnd::kData) return report_head_error(first);

  const auto begun = static_cast<size_t>(first.count);
  os::StreamReader rest(fd, patience(kHeadRest_ms));
  const os::Filled filled = rest.fill(bytes.subspan(begun));
  if (filled.end == os::ReadEnd::kData) return Status::kOk;
  std::printf("ooo: notifyclient no match head len, my pid=%d, got len=%d!\n",
              static_cast<int>(::getpid()), static_cast<int>(begun + filled.count));
  return Status::kIo;
}

Status report_body_error(os::Piece piece, const NOTIFY_MSG &head) {
  const int error = errno;
  const int pid = ::getpid();
  const int count = static_cast<int>(piece.count);
  if (piece.end == os::ReadEnd::kPeerGone) {
    std::printf("error: notifyclient peer dead when read body, my pid=%d, errno=%d, ret=%d!\n", pid,
                error, count);
    return Status::kPeerGone;
  }
  std::printf(
      "error: notifyclient fail to read body, my pid=%d, errno=%d, ret=%d,msg type=0x%x, src=%u, "
      "dest=%u!\n",
      pid, error, count, head.msg_type, head.source_id, head.des_id);
  return Status::kIo;
}

// Reads the data to its end; with a null `data` it is thrown away.
Status read_body(int fd, uint32_t timeout_ms, const NOTIFY_MSG &head, char *data) {
  char thrown_away[1024];
  os::StreamReader reader(fd, patience(timeout_ms));
  for (uint32_t got = 0; got < head.data_len;) {
    const size_t left = head.data_len - got;
    const size_t wanted = data != nullptr ? left : std::min(left, sizeof thrown_away);
    const os::Piece piece = reader.read_some({data != nullptr ? data + got : thrown_away, wanted});
    if (piece.end == os::ReadEnd::kSilence) return report_silence(timeout_ms);
    if (piece.end != os::ReadEnd::kData) return report_body_error(piece, head);
    if (static_cast<size_t>(piece.count) < wanted) {
      std::printf(
          "ooo: notifyclient no match body len, my pid=%d, want len=%d, got len=%d, msg type=0x%x, "
          "src=%u, dest=%u!\n",
          static_cast<int>(::getpid()), static_cast<int>(wanted), static_cast<int>(piece.count),
          head.msg_type, head.source_id, head.des_id);
    }
    got += static_cast<uint32_t>(piece.count);
    assert(got <= head.data_len);
  }
  return Status::kOk;
}

Status receive_data(int fd, uint32_t timeout_ms, Owned<Received> &received) {
  const NOTIFY_MSG &head = received->message;
  if (head.data_len == 0) return Status::kOk;
  if (head.data_len > ORP_NOTIFYCLT_MAX_DATA) {
    std::printf("ooo notifyclient data Length too long: %x, msg %x from %d to %d.\n", head.data_len,
                head.msg_type, static_cast<int>(head.source_id), static_cast<int>(head.des_id));
    return Status::kNoMemory;
  }
  const uint64_t size = sizeof(Received) + uint64_t{head.data_len};
  if (!grow_tailed(&received, sizeof(Received), size, __func__, __LINE__)) {
    std::printf("realloc failed in NotifyMsgRecv.\n");
    const Status status = read_body(fd, timeout_ms, received->message, nullptr);
    return status == Status::kOk ? Status::kNoMemory : status;
  }
  return read_body(fd, timeout_ms, received->message, reinterpret_cast<char *>(received.get() + 1));
}

}  // namespace

Owned<NOTIFY_MSG> build_message(const NOTIFY_MSG &head, Bytes first, Bytes second) {
  const uint64_t data_len = uint64_t{first.size()} + second.size();
  Owned<NOTIFY_MSG> message(static_cast<NOTIFY_MSG *>(guarded_alloc(sizeof head + data_len)));
  if (!message) return nullptr;

  *message = head;
  message->data_len = static_cast<uint32_t>(data_len);
  char *data = reinterpret_cast<char *>(message.get() + 1);
  if (!first.empty()) std::memcpy(data, first.data(), first.size());
  if (!second.empty()) std::memcpy(data + first.size(), second.data(), second.size());
  return message;
}

Status send_message(int fd, const NOTIFY_MSG *message) {
  if (message == nullptr || fd < 0) return Status::kBadArgument;

  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "notify", uv::kTraceLevel,
                      "send type=0x%x, src=[%d], dest=[%d] seq=%d, data_len=%d\n",
                      message->msg_type, static_cast<int>(message->source_id),
                      static_cast<int>(message->des_id), static_cast<int>(message->seq_num),
                      static_cast<int>(message->data_len));
  if (g_failures.load() > kMaxFailures) reboot_device();

  const SendLock lock;
  if (!wait_writable(fd, *message)) return Status::kNotWritable;
  const Status status = write_message(fd, *message);
  if (status != Status::kOk) {
    std::printf(
        "notifyclient NotifyMsgSend fail to send, type=0x%x, src=[%d], dest=[%d] seq=%d, "
        "sync_tag=%d, data_len=%d, ulRetVal=%d, fd=%d\n",
        message->msg_type, static_cast<int>(message->source_id), static_cast<int>(message->des_id),
        static_cast<int>(message->seq_num), static_cast<int>(message->sync_tag),
        static_cast<int>(message->data_len), static_cast<int>(code(status)), fd);
    return status;
  }
  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "notify", uv::kTraceLevel, "sent seq=%d\n",
                      static_cast<int>(message->seq_num));
  g_failures.store(0);
  return Status::kOk;
}

Result<Owned<Received>> receive_message(int fd, uint32_t timeout_ms) {
  // Wait first, so that nothing is allocated for a message that does not come.
  if (os::wait_readable_through_signals(fd, timeout_ms) == os::Readiness::kTimeout) {
    return report_silence(timeout_ms);
  }

  Owned<Received> received = make_tailed<Received>(sizeof(Received));
  if (!received) {
    std::printf("malloc msg header failed.\n");
    return Status::kNoMemory;
  }

  Status status = read_head(fd, timeout_ms, &received->message);
  if (status == Status::kOk) status = receive_data(fd, timeout_ms, received);
  if (status != Status::kOk) return status;

  const NOTIFY_MSG &head = received->message;
  ORP_TRACE_PrintInfo(
      __func__, __LINE__, 0, "notify", uv::kTraceLevel,
      "notifyclient NotifyMsgRecv(): pstMsg->source_id=%d, pstMsg->des_id=%d, "
      "pstMsg->msg_type=%d, pstMsg->data_len=%d, pstMsg->ack_tag=%d, pstMsg->sync_tag=%d, "
      "pstMsg->sub_data_len1=%d, pstMsg->sub_data_len2=%d\n",
      static_cast<int>(head.source_id), static_cast<int>(head.des_id),
      static_cast<int>(head.msg_type), static_cast<int>(head.data_len),
      static_cast<int>(head.ack_tag), static_cast<int>(head.sync_tag),
      static_cast<int>(head.sub_data_len1), static_cast<int>(head.sub_data_len2));
  return received;
}

}  // namespace msgapi::notify
