// The measure for the agent's relay: the least that a two-thread relay can do. Plays the same
// registrations against the load generator (one line out, one request in, no checks, no statistics,
// no back-off), then copies with blocking calls. Ends with the first unexpected failure.
//
//   plain_relay STREAMS CLOUD_PORT CAMERA_PORT
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

enum {
  TRANSFER_SIZE = 8192,     // bytes, as in the agent
  STACK_SIZE = 128 * 1024,  // bytes, as in the agent
  KEEPALIVE_SIZE = 4,       // bytes; no request is so short
};

struct relay {
  int number;  // 1-based
  int cloud;
  int camera;
  sem_t left;  // the cloud-to-camera thread has gone
};

static int cloud_port;
static int camera_port;

static void fail(const char *what) {
  perror(what);
  exit(1);
}

static int connect_to(int port) {
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  if (fd < 0 || connect(fd, (struct sockaddr *)&address, sizeof address) != 0 ||
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
    fail("plain relay: connect");
  }
  return fd;
}

static int send_all(int fd, const char *data, ssize_t length) {
  while (length > 0) {
    const ssize_t sent = send(fd, data, (size_t)length, MSG_NOSIGNAL);
    if (sent < 0) return -1;
    data += sent;
    length -= sent;
  }
  return 0;
}

// Ends the other direction too.
__attribute__((noinline)) static void copy(int from, int to) {
  char buffer[TRANSFER_SIZE];
  ssize_t received;
  while ((received = recv(from, buffer, sizeof buffer, 0)) > 0) {
    if (send_all(to, buffer, received) != 0) break;
  }
  shutdown(from, SHUT_RD);
  shutdown(to, SHUT_RD);
}

static void start(void *(*body)(void *), void *argument) {
  pthread_attr_t attributes;
  pthread_t thread;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, STACK_SIZE);
  if (pthread_create(&thread, &attributes, body, argument) != 0) fail("plain relay: thread");
  pthread_attr_destroy(&attributes);
}

static void *cloud_to_camera(void *argument) {
  struct relay *relay = argument;
  copy(relay->cloud, relay->camera);
  sem_post(&relay->left);
  return NULL;
}

__attribute__((noinline)) static void pass_request(struct relay *relay) {
  char message[TRANSFER_SIZE];
  const int length =
      snprintf(message, sizeof message, "REGISTER={\"cloudid\":\"plain/%d\"}", relay->number);
  if (send_all(relay->cloud, message, length) != 0) fail("plain relay: register");
  ssize_t received;
  while ((received = recv(relay->cloud, message, sizeof message, 0)) == KEEPALIVE_SIZE) {
    if (send_all(relay->cloud, "ok", 2) != 0) fail("plain relay: keepalive");
  }
  if (received <= 0) exit(0);  // the load generator has gone
  relay->camera = connect_to(camera_port);
  if (send_all(relay->camera, message, received) != 0) fail("plain relay: request");
}

static void *stream(void *argument) {
  struct relay *relay = argument;
  for (;;) {
    relay->cloud = connect_to(cloud_port);
    pass_request(relay);
    start(cloud_to_camera, relay);
    copy(relay->camera, relay->cloud);
    while (sem_wait(&relay->left) != 0) {
    }
    close(relay->camera);
    close(relay->cloud);
  }
  return NULL;
}

int main(int argc, char **argv) {
  if (argc != 4) return 2;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  cloud_port = atoi(argv[2]);
  camera_port = atoi(argv[3]);
  const int streams = atoi(argv[1]);
  struct relay *relays = calloc((size_t)streams, sizeof *relays);
  for (int i = 0; i < streams; i++) {
    relays[i].number = i + 1;
    sem_init(&relays[i].left, 0, 0);
    start(stream, &relays[i]);
  }
  for (;;)
    pause();
}
