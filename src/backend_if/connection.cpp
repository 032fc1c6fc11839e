// The data-server connection with its initialisation handshake, and the shared
// frame buffer the data server publishes.
#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ethernet.h"
#include "internal/backend.hpp"
#include "internal/backend_records.hpp"
#include "internal/descriptor.hpp"
#include "internal/handle.hpp"
#include "internal/tcp.hpp"
#include "utils.h"

namespace varkel::detail {

namespace {

// Prints one line without disturbing errno: callers report the system error after it.
void print_line(const char* text)
{
  const int saved = errno;
  std::puts(text);
  errno = saved;
}

// Bytes of the handle's frame: at most the whole mapping.
std::size_t frame_bytes(const varkel_t* v)
{
  return std::min<std::size_t>(std::size_t{v->frame_size} * 4, kFrameBufferSize);
}

// The shared-memory segment a handle maps its sample frame from, with its messages.
struct SegmentPlace {
  std::string file;           // under /dev/shm
  std::string name;           // for shm_open
  std::string missing_text;   // printed when `file` does not exist
  std::string open_fail_text; // printed when the open fails
};

// The segment varkel_set_frame_segment named, else the library's one for the
// model (its "_sim" twin when `simulate` is 1); false for models that have none.
bool segment_place(varkel_t* v, SegmentPlace& out)
{
  const char* own = extras(v).frame_segment;
  if (own[0] != '\0') {
    const std::string file = std::string("/dev/shm") + own;
    out = {file, own, file + " shared memory file not found",
           "Cannot open shared memory file " + file + " for array data."};
    return true;
  }
  const FrameSegment* segment = frame_segment(v->detModel, v->simulate);
  if (segment == nullptr)
    return false;
  out = {segment->file, segment->name, segment->missing_text, segment->open_fail_text};
  return true;
}

} // namespace

bool send_record(int fd, const void* record)
{
  return send(fd, record, kRecordSize, MSG_NOSIGNAL) == static_cast<ssize_t>(kRecordSize);
}

ssize_t receive_record(int fd, void* record)
{
  // The acquisition timer's SIGALRM is caught without SA_RESTART and may cut a
  // record in two: the wait resumes for the rest, within the socket's time-out.
  return receive_exact(fd, record, kRecordSize, receive_timeout(fd));
}

void release_backend(varkel_t* v)
{
  if (v->backend_socket >= 0)
    varkel_disconnect_backend(v);
  if (v->adata.sample_frame != nullptr) {
    munmap(v->adata.sample_frame, kFrameBufferSize);
    v->adata.sample_frame = nullptr;
  }
}

} // namespace varkel::detail

using namespace varkel::detail;

int varkel_connect_backend(varkel_t* varkel, const char* address, unsigned short port)
{
  assert(varkel != NULL);
  assert(address != NULL);
  assert(port > 0);

  if (varkel->backend_socket != -1)
    varkel_disconnect_backend(varkel);
  varkel->backend_socket = off_zero(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (varkel->backend_socket < 0) {
    varkel->backend_socket = -1;
    return errno;
  }
  // The handle's bounds cover the connect and the greeting; the exchanges after
  // it keep the data server's own time-out, a short reply to some of them being
  // the end of the process.
  const HandleExtras& bounds = extras(varkel);
  const uint64_t greeting_us = std::min(reply_timeout_us(bounds), VARKEL_BACKEND_TIMEOUT_US);
  int rc = connect_within(varkel->backend_socket, address, port, greeting_us, bounds.connect_timeout_us);
  if (rc == 0) {
    rc = receive_initArgs_fromBackend(varkel, varkel->backend_socket);
    if (rc == 0 && greeting_us != VARKEL_BACKEND_TIMEOUT_US)
      rc = set_timeout(varkel->backend_socket, VARKEL_BACKEND_TIMEOUT_US);
    if (rc == 0)
      return 0;
  }
  varkel_disconnect_backend(varkel);
  return rc;
}

void varkel_disconnect_backend(varkel_t* varkel)
{
  assert(varkel != NULL);
  if (varkel->backend_socket == -1)
    return;
  release_descriptor(varkel->backend_socket);
  print_debug(varkel->debug_out, "[DISC]", "");
}

int receive_initArgs_fromBackend(varkel_t* varkel, int sockfd)
{
  assert(varkel != NULL);
  BackendLock lock(varkel->backend_socket_mutex);

  const ssize_t got = receive_record(sockfd, &varkel->init_args);
  if (got != static_cast<ssize_t>(kRecordSize)) {
    perror("receive_initArgs_fromBackend");
    printf("Error while receiving initial args. Returned value is %d\n", static_cast<int>(got));
    return -1;
  }
  if (varkel->init_args.type != INIT_ARGS) {
    printf("initial arguments with wrong type paramter received %d\n", varkel->init_args.type);
    return -1;
  }
  std::fputs(format_init_args(varkel->init_args).c_str(), stdout);

  varkel->ack.type = ACK;
  if (!send_record(sockfd, &varkel->ack)) {
    puts("Error while sending init args");
    return -1;
  }
  puts("Sent ackhowledgement");
  return 0;
}

void print_gid(unsigned char* gid, const char* id)
{
  assert(gid != NULL);
  assert(id != NULL);
  std::fputs(format_gid(gid, id).c_str(), stdout);
}

uint8_t* create_shared_memory(varkel_t* varkel)
{
  assert(varkel != NULL);
  SegmentPlace segment;
  if (!segment_place(varkel, segment)) {
    printf("Detector model %d has no shared memory file for array data.\n", static_cast<int>(varkel->detModel));
    errno = ENODEV;
    return nullptr;
  }
  if (access(segment.file.c_str(), F_OK) != 0) {
    print_line(segment.missing_text.c_str());
    return nullptr;
  }
  // Closed on every way out; the mapping outlives it.
  const Descriptor fd(shm_open(segment.name.c_str(), O_RDWR, 0777));
  if (fd.get() < 0) {
    print_line(segment.open_fail_text.c_str());
    return nullptr;
  }
  // The segment must hold at least the frame this handle copies out of it.
  struct stat st {};
  const std::size_t bytes = frame_bytes(varkel);
  if (fstat(fd.get(), &st) != 0 || st.st_size < static_cast<off_t>(bytes)) {
    printf("Shared memory file %s is smaller than one frame (%zu bytes).\n", segment.file.c_str(), bytes);
    errno = EINVAL;
    return nullptr;
  }
  void* map = mmap(nullptr, kFrameBufferSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (map == MAP_FAILED) {
    print_line("Cannot map shared memory file.");
    return nullptr;
  }
  return static_cast<uint8_t*>(map);
}

int init_array_data(varkel_t* varkel)
{
  assert(varkel != NULL);
  uint8_t* map = create_shared_memory(varkel);
  if (map == nullptr) {
    perror("Could not initialize shared memory.\n");
    return -1;
  }
  // A second mapping replaces the first instead of leaking it.
  if (varkel->adata.sample_frame != nullptr)
    munmap(varkel->adata.sample_frame, kFrameBufferSize);
  varkel->adata.sample_frame = reinterpret_cast<int32_t*>(map);
  return 0;
}

int get_array_data(varkel_t* varkel)
{
  assert(varkel != NULL);
  if (varkel->adata.sample_frame == nullptr || varkel->sample_frame == nullptr)
    return ENODATA;
  // Read through the segment's descriptor, not the mapping: pages the data server
  // cuts off by shrinking the segment fault (SIGBUS) when touched through the
  // mapping, while a read just ends early.
  SegmentPlace segment;
  const bool has_segment = segment_place(varkel, segment);
  const Descriptor fd(has_segment ? shm_open(segment.name.c_str(), O_RDONLY | O_CLOEXEC, 0) : -1);
  if (fd.get() < 0)
    return has_segment ? errno : ENODATA;
  auto* out = reinterpret_cast<char*>(varkel->sample_frame);
  const std::size_t bytes = frame_bytes(varkel);
  for (std::size_t got = 0; got < bytes;) {
    const ssize_t n = pread(fd.get(), out + got, bytes - got, static_cast<off_t>(got));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return errno;
    if (n == 0)
      return EIO;
    got += static_cast<std::size_t>(n);
  }
  return 0;
}
