// The load generator: balancer, cloud and cameras of one relay process, in one thread around epoll,
// so light that the relay is what gets measured.
//
//   load STREAMS CLOUD_PORT CAMERA_PORT BALANCER_PORT [connect]    (balancer 0: none)
//
// With `connect` the relay is a proxy that listens at CLOUD_PORT: the cloud connects to it once per
// relay, and nothing registers. A CLOUD_PORT equal to CAMERA_PORT leaves the relay out.
//
// Prints "ready" when it listens and "registered at_ns=..." (monotonic clock) when all streams have
// registered. Then takes one command per line, answers each with one line of key=value pairs, and
// ends at the end of its input; between commands it sleeps.
//
//   keepalive              one for every registered stream; answers when all have replied
//   open                   asks for every stream; answers when all relays are established
//   paced MS RATE PIECES   camera to cloud, RATE frames a second of each stream, each of PIECES
//                          writes of 1,400 bytes at once; the streams' frames are evenly spread
//   bulk MS BOTH           as fast as it goes, camera to cloud or (BOTH 1) both ways
//   end COUNT              the cloud closes that many relays; answers when all of them have
//                          registered again
//   cycle MS               opens every relay and closes it as soon as it is established, again and
//                          again; answers when none is left
//
// The last word of each command is the relay's process. Its processor time, with all its child
// processes, is read at both ends of the measured time. The cloud's OPTIONS carries the stream's
// number as CSeq, by which the camera knows the stream. Times in ns.
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <inttypes.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum {
  MAX_STREAMS = 64,
  PIECE_SIZE = 1400,      // bytes, as a camera's RTP packets
  STAMP_SIZE = 8,         // bytes at the start of each piece: twice the send time, and 1 if it is
                          // the last of its frame
  BULK_SIZE = 64 * 1024,  // bytes of one send or receive
  MESSAGE_SIZE = 2048,    // bytes of a request or an answer
  MAX_SAMPLES = 1 << 20,  // latencies kept of one series
};
static const int64_t SECOND = 1000000000;
static const int64_t WARM_UP = 150000000;     // ns before a measurement
static const int64_t PATIENCE = 10 * SECOND;  // for anything that is waited for

enum kind { LISTEN_BALANCER, LISTEN_CLOUD, LISTEN_CAMERA, BALANCER, CLOUD, CAMERA };
enum phase { FRESH, REGISTERED, ASKED, RELAYING };

struct connection {
  int fd;
  enum kind kind;
  enum phase phase;
  int stream;       // 0-based, -1 until known
  size_t in_piece;  // bytes of the current piece that have arrived
  char stamp[STAMP_SIZE];
};

struct series {
  size_t count;
  uint32_t ns[MAX_SAMPLES];
};

static int stream_count;
static int cloud_port;
static bool connects;  // the cloud connects to the relay, instead of the relay to the cloud
static int poller;
static struct connection *cloud[MAX_STREAMS];  // NULL while not connected
static struct connection *camera[MAX_STREAMS];
static int64_t ended_at[MAX_STREAMS];     // when the cloud closed, 0: it did not
static int64_t again_after[MAX_STREAMS];  // from there to the next registration
static int registered, established, kept_alive;
static bool bulk;               // pieces are not looked at
static uint64_t sent, arrived;  // bytes relayed, both ways together
static int cycles;              // relays that were opened and closed by the command
static bool sampling;
static struct series pieces, last_pieces;  // from send to arrival; last of their frames
static char bytes[BULK_SIZE];

static void die(const char *format, ...) {
  va_list values;
  va_start(values, format);
  fprintf(stderr, "load: ");
  vfprintf(stderr, format, values);
  fprintf(stderr, " (%s)\n", strerror(errno));
  exit(1);
}

static int64_t clock_ns(clockid_t clock) {
  struct timespec now;
  if (clock_gettime(clock, &now) != 0) die("no clock");
  return now.tv_sec * SECOND + now.tv_nsec;
}

static int64_t now_ns(void) {
  return clock_ns(CLOCK_MONOTONIC);
}

// --- Connections ---------------------------------------------------------------------------------

static void watch(struct connection *connection, int operation, uint32_t events) {
  struct epoll_event event = {.events = events, .data.ptr = connection};
  if (epoll_ctl(poller, operation, connection->fd, &event) != 0) die("epoll_ctl");
}

static struct connection *add_connection(int fd, enum kind kind) {
  const int on = 1;
  struct connection *connection = calloc(1, sizeof *connection);
  *connection = (struct connection){.fd = fd, .kind = kind, .stream = -1};
  if (kind >= BALANCER) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  watch(connection, EPOLL_CTL_ADD, EPOLLIN);
  return connection;
}

static struct sockaddr_in loopback(int port) {
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

static void listen_at(int port, enum kind kind) {
  const struct sockaddr_in address = loopback(port);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd, (struct sockaddr *)&address, sizeof address) != 0 || listen(fd, 256) != 0) {
    die("listen at %d", port);
  }
  add_connection(fd, kind);
}

static void drop(struct connection *connection) {
  const int stream = connection->stream;
  if (stream >= 0 && cloud[stream] == connection) cloud[stream] = NULL;
  if (stream >= 0 && camera[stream] == connection) camera[stream] = NULL;
  if (connection->kind == CLOUD && connection->phase == RELAYING) established--;
  if (connection->kind == CLOUD && connection->phase == REGISTERED) registered--;
  close(connection->fd);
  free(connection);
}

static void say(const struct connection *connection, const char *text) {
  if (send(connection->fd, text, strlen(text), MSG_NOSIGNAL) != (ssize_t)strlen(text)) die("send");
}

// The stream number behind `marker` in a message, made 0-based.
static int stream_of(const char *message, const char *marker) {
  const char *found = strstr(message, marker);
  const int stream = found ? atoi(found + strlen(marker)) - 1 : -1;
  if (stream < 0 || stream >= stream_count) die("no stream number in: %s", message);
  return stream;
}

// --- The three parts played ----------------------------------------------------------------------

static void answer_balancer(const struct connection *connection, const char *request) {
  char answer[MESSAGE_SIZE];
  char message[64] = "bench-cloud-id";
  if (strstr(request, "/balancer/server/")) {
    snprintf(message, sizeof message, "127.0.0.1|%d", cloud_port);
  }
  snprintf(answer, sizeof answer,
           "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n"
           "{\"message\":\"%s\"}",
           message);
  say(connection, answer);
}

static void register_as(int stream, struct connection *connection) {
  connection->stream = stream;
  connection->phase = REGISTERED;
  cloud[stream] = connection;
  registered++;
}

// False while nobody listens. The connection counts as the stream's registration.
static bool connect_stream(int stream) {
  const struct sockaddr_in address = loopback(cloud_port);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, (const struct sockaddr *)&address, sizeof address) != 0) {
    close(fd);
    return false;
  }
  register_as(stream, add_connection(fd, CLOUD));
  return true;
}

static void take_registration(struct connection *connection, const char *message) {
  const char *id = strstr(message, "\"cloudid\"");
  const int stream = stream_of(id ? id : message, "/");
  register_as(stream, connection);
  if (ended_at[stream]) again_after[stream] = now_ns() - ended_at[stream];
}

static void answer_camera(struct connection *connection, const char *request) {
  char answer[MESSAGE_SIZE];
  if (!strstr(request, "User-Agent: Camera Proxy")) {  // no probe, so a relay's handshake
    connection->stream = stream_of(request, "CSeq: ");
    camera[connection->stream] = connection;
  }
  snprintf(answer, sizeof answer, "RTSP/1.0 200 OK\r\nCSeq: %d\r\n\r\n", connection->stream + 1);
  connection->phase = RELAYING;
  say(connection, answer);
}

static void take_message(struct connection *connection) {
  char message[MESSAGE_SIZE];
  const ssize_t received = recv(connection->fd, message, sizeof message - 1, 0);
  if (received <= 0) {
    drop(connection);
    return;
  }
  message[received] = '\0';
  if (connection->kind == BALANCER) {
    answer_balancer(connection, message);
    drop(connection);
  } else if (connection->kind == CAMERA) {
    answer_camera(connection, message);
  } else if (connection->phase == FRESH) {
    take_registration(connection, message);
  } else if (connection->phase == REGISTERED) {
    kept_alive += strcmp(message, "ok") == 0;
  } else if (connection->phase == ASKED) {
    connection->phase = RELAYING;
    established++;
  }
}

// --- Relayed bytes -------------------------------------------------------------------------------

static void add_sample(struct series *series, int64_t ns) {
  if (series->count < MAX_SAMPLES) series->ns[series->count++] = (uint32_t)ns;
}

static void take_pieces(struct connection *connection, const char *data, size_t length) {
  const int64_t now = now_ns();
  while (length > 0) {
    size_t part = PIECE_SIZE - connection->in_piece;
    if (part > length) part = length;
    for (size_t i = 0; i < part && connection->in_piece + i < STAMP_SIZE; i++) {
      connection->stamp[connection->in_piece + i] = data[i];
    }
    connection->in_piece += part;
    data += part;
    length -= part;
    if (connection->in_piece < PIECE_SIZE) return;
    connection->in_piece = 0;
    int64_t stamp;
    memcpy(&stamp, connection->stamp, sizeof stamp);
    if (!sampling) continue;
    add_sample(&pieces, now - stamp / 2);
    if (stamp % 2 == 1) add_sample(&last_pieces, now - stamp / 2);
  }
}

static void take_bytes(struct connection *connection) {
  // MSG_TRUNC lets the kernel throw TCP data away without copying it.
  const int flags = MSG_DONTWAIT | (bulk ? MSG_TRUNC : 0);
  const ssize_t received = recv(connection->fd, bytes, sizeof bytes, flags);
  if (received <= 0) {
    if (received == 0 || errno != EAGAIN) drop(connection);
    return;
  }
  arrived += (uint64_t)received;
  if (!bulk && connection->kind == CLOUD) take_pieces(connection, bytes, (size_t)received);
}

static void handle(struct connection *connection, uint32_t events) {
  if (connection->kind < BALANCER) {
    const int fd = accept4(connection->fd, NULL, NULL, SOCK_CLOEXEC);
    if (fd >= 0) add_connection(fd, connection->kind + BALANCER - LISTEN_BALANCER);
    return;
  }
  if (events & EPOLLOUT) {
    const ssize_t count = send(connection->fd, bytes, sizeof bytes, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) sent += (uint64_t)count;
  }
  if (!(events & ~(uint32_t)EPOLLOUT)) return;
  if (connection->phase == RELAYING) {
    take_bytes(connection);
  } else {
    take_message(connection);
  }
}

// Handles what is there, waiting for it until `end` at the most.
static void pump(int64_t end) {
  struct epoll_event events[MAX_STREAMS];
  const int64_t left = end - now_ns();
  const struct timespec wait = {left > 0 ? left / SECOND : 0, left > 0 ? left % SECOND : 0};
  const int count = epoll_pwait2(poller, events, MAX_STREAMS, &wait, NULL);
  for (int i = 0; i < count; i++)
    handle(events[i].data.ptr, events[i].events);
}

#define PUMP_UNTIL(condition)                                      \
  do {                                                             \
    const int64_t end_ = now_ns() + PATIENCE;                      \
    while (!(condition)) {                                         \
      if (now_ns() > end_) die("not within 10 s: %s", #condition); \
      pump(end_);                                                  \
    }                                                              \
  } while (0)

// --- Commands ------------------------------------------------------------------------------------

struct meter {
  int64_t relay, own, wall;  // ns
  uint64_t arrived;
  int cycles;
};

// What a file of /proc/PID says, cut to MESSAGE_SIZE; empty without it.
static void read_proc(char *text, pid_t pid, const char *name) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/%s", (int)pid, name);
  FILE *file = fopen(path, "re");
  text[file ? fread(text, 1, MESSAGE_SIZE - 1, file) : 0] = '\0';
  if (file) fclose(file);
}

// Of a process, its children, and the children that have ended (those only in ticks); 0 of none.
static int64_t processor_time(pid_t pid) {
  char text[MESSAGE_SIZE], children[64], *left;
  struct timespec used;
  clockid_t clock;
  long user = 0, system = 0;
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) return 0;
  read_proc(text, pid, "stat");
  const char *fields = strrchr(text, ')');  // the name, which may hold anything, ends here
  if (fields) {
    sscanf(fields, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %ld %ld", &user, &system);
  }
  int64_t sum = used.tv_sec * SECOND + used.tv_nsec;
  sum += (user + system) * (SECOND / sysconf(_SC_CLK_TCK));
  snprintf(children, sizeof children, "task/%d/children", (int)pid);
  read_proc(text, pid, children);
  for (char *word = strtok_r(text, " ", &left); word; word = strtok_r(NULL, " ", &left))
    sum += processor_time(atoi(word));
  return sum;
}

static struct meter meter_read(pid_t relay) {
  struct meter meter = {.arrived = arrived, .cycles = cycles, .wall = now_ns()};
  meter.relay = processor_time(relay);
  if (meter.relay == 0) die("no relay %d", (int)relay);
  meter.own = clock_ns(CLOCK_PROCESS_CPUTIME_ID);
  return meter;
}

static int compare(const void *a, const void *b) {
  const uint32_t x = *(const uint32_t *)a, y = *(const uint32_t *)b;
  return (x > y) - (x < y);
}

// Sorts the samples: the value below which that share of them lies.
static uint32_t percentile(struct series *series, unsigned share) {
  qsort(series->ns, series->count, sizeof series->ns[0], compare);
  return series->count ? series->ns[(series->count - 1) * share / 100] : 0;
}

static void report(const struct meter *start, pid_t relay) {
  const struct meter end = meter_read(relay);
  printf("cycles=%d bytes=%" PRIu64 " relay_ns=%" PRId64 " own_ns=%" PRId64 " wall_ns=%" PRId64
         " p50_ns=%" PRIu32 " p99_ns=%" PRIu32 " last_p50_ns=%" PRIu32 " last_p99_ns=%" PRIu32 "\n",
         end.cycles - start->cycles, end.arrived - start->arrived, end.relay - start->relay,
         end.own - start->own, end.wall - start->wall, percentile(&pieces, 50),
         percentile(&pieces, 99), percentile(&last_pieces, 50), percentile(&last_pieces, 99));
  pieces.count = last_pieces.count = 0;
}

static void require(struct connection *const *connections) {
  for (int i = 0; i < stream_count; i++) {
    if (!connections[i]) die("stream %d has ended by itself", i + 1);
  }
}

static void require_relays(void) {
  require(cloud);
  require(camera);
}

static void send_piece(struct connection *connection, bool is_last) {
  char piece[PIECE_SIZE] = {0};
  const int64_t stamp = 2 * now_ns() + is_last;
  memcpy(piece, &stamp, sizeof stamp);
  for (size_t done = 0; done < sizeof piece;) {
    const ssize_t count =
        send(connection->fd, piece + done, sizeof piece - done, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) done += (size_t)count;
    if (count < 0 && errno != EAGAIN) die("camera's send");
    if (count < 0) pump(now_ns() + SECOND / 1000);
  }
  sent += sizeof piece;
}

static void run_paced(int64_t duration, int rate, int frame_pieces, pid_t relay) {
  const int64_t step = SECOND / (rate * stream_count);
  const int64_t begin = now_ns();
  struct meter start = {0};
  for (int64_t k = 0; begin + k * step < begin + WARM_UP + duration; k++) {
    const int64_t due = begin + k * step;
    do
      pump(due);
    while (now_ns() < due);
    if (!sampling && due >= begin + WARM_UP) {
      start = meter_read(relay);
      sampling = true;
    }
    require_relays();
    for (int i = 1; i <= frame_pieces; i++)
      send_piece(camera[k % stream_count], i == frame_pieces);
  }
  PUMP_UNTIL(arrived == sent);
  sampling = false;
  report(&start, relay);
}

static void watch_all(struct connection *const *connections, uint32_t events) {
  for (int i = 0; i < stream_count; i++)
    watch(connections[i], EPOLL_CTL_MOD, events);
}

static void run_bulk(int64_t duration, bool both, pid_t relay) {
  const int64_t begin = now_ns();
  require_relays();
  bulk = true;
  watch_all(camera, EPOLLIN | EPOLLOUT);
  if (both) watch_all(cloud, EPOLLIN | EPOLLOUT);
  while (now_ns() < begin + WARM_UP)
    pump(begin + WARM_UP);
  const struct meter start = meter_read(relay);
  while (now_ns() < begin + WARM_UP + duration)
    pump(begin + WARM_UP + duration);
  require_relays();
  watch_all(camera, EPOLLIN);
  watch_all(cloud, EPOLLIN);
  PUMP_UNTIL(arrived == sent);
  report(&start, relay);
  bulk = false;
}

static void run_keepalive(void) {
  kept_alive = 0;
  for (int i = 0; i < stream_count; i++)
    say(cloud[i], "\r\n\r\n");
  PUMP_UNTIL(kept_alive == stream_count);
  printf("kept_alive=%d\n", kept_alive);
}

static void ask_for(int stream) {
  char request[MESSAGE_SIZE];
  if (!cloud[stream] && connects && !connect_stream(stream)) die("connect to the relay");
  if (!cloud[stream] || cloud[stream]->phase != REGISTERED) return;
  snprintf(request, sizeof request, "OPTIONS rtsp://bench/ RTSP/1.0\r\nCSeq: %d\r\n\r\n",
           stream + 1);
  say(cloud[stream], request);
  cloud[stream]->phase = ASKED;
  registered--;
}

static void run_open(void) {
  for (int i = 0; i < stream_count; i++)
    ask_for(i);
  PUMP_UNTIL(established == stream_count);
  printf("established=%d\n", established);
}

static int streams_connected(void) {
  int count = 0;
  for (int i = 0; i < stream_count; i++)
    count += cloud[i] != NULL;
  return count;
}

// One look at all streams: closes what is established, asks for what is not.
static void turn_cycles(bool ask) {
  for (int i = 0; i < stream_count; i++) {
    if (cloud[i] && cloud[i]->phase == RELAYING) {
      drop(cloud[i]);
      cycles++;
    }
    if (ask) ask_for(i);
  }
  pump(now_ns() + SECOND / 1000);
}

static void run_cycle(int64_t duration, pid_t relay) {
  const int64_t begin = now_ns(), end = begin + WARM_UP + duration;
  while (now_ns() < begin + WARM_UP)
    turn_cycles(true);
  const struct meter start = meter_read(relay);
  while (now_ns() < end)
    turn_cycles(true);
  report(&start, relay);
  while (connects ? streams_connected() > 0 : registered < stream_count) {
    if (now_ns() > end + PATIENCE) die("the last relays have not ended");
    turn_cycles(false);
  }
}

static void run_end(int count) {
  for (int i = 0; i < count; i++) {
    if (!cloud[i]) die("no relay %d", i + 1);
    ended_at[i] = now_ns();
    again_after[i] = 0;
    drop(cloud[i]);
  }
  PUMP_UNTIL(registered == count);
  struct series *again = &pieces;
  for (int i = 0; i < count; i++)
    add_sample(again, again_after[i]);
  printf("median_ns=%" PRIu32 " max_ns=%" PRIu32 "\n", percentile(again, 50),
         percentile(again, 100));
  again->count = 0;
}

static void run_command(const char *line) {
  int ms, rate, number, pid;
  if (strncmp(line, "open", 4) == 0) {
    run_open();
  } else if (strncmp(line, "keepalive", 9) == 0) {
    require(cloud);
    run_keepalive();
  } else if (sscanf(line, "paced %d %d %d %d", &ms, &rate, &number, &pid) == 4) {
    run_paced(ms * (SECOND / 1000), rate, number, pid);
  } else if (sscanf(line, "bulk %d %d %d", &ms, &number, &pid) == 3) {
    run_bulk(ms * (SECOND / 1000), number != 0, pid);
  } else if (sscanf(line, "cycle %d %d", &ms, &pid) == 2) {
    run_cycle(ms * (SECOND / 1000), pid);
  } else if (sscanf(line, "end %d", &number) == 1) {
    run_end(number);
  } else {
    die("unknown command: %s", line);
  }
  fflush(stdout);
}

int main(int argc, char **argv) {
  char line[256];
  if (argc < 5) return 2;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  prctl(PR_SET_TIMERSLACK, 1000UL);  // ns; even writes are about 40 us apart
  stream_count = atoi(argv[1]);
  cloud_port = atoi(argv[2]);
  connects = argc > 5;
  poller = epoll_create1(EPOLL_CLOEXEC);
  if (!connects) listen_at(cloud_port, LISTEN_CLOUD);
  listen_at(atoi(argv[3]), LISTEN_CAMERA);
  if (atoi(argv[4]) != 0) listen_at(atoi(argv[4]), LISTEN_BALANCER);
  printf("ready\n");
  fflush(stdout);

  if (connects) {
    for (const int64_t end = now_ns() + PATIENCE; !connect_stream(0);) {
      if (now_ns() > end) die("nobody listens at %d", cloud_port);
      pump(now_ns() + SECOND / 1000);
    }
    drop(cloud[0]);
  } else {
    PUMP_UNTIL(registered == stream_count);
  }
  printf("at_ns=%" PRId64 "\n", now_ns());
  fflush(stdout);
  while (fgets(line, sizeof line, stdin))
    run_command(line);
  return 0;
}
