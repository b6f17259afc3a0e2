#include "stream/relay.h"

#include <sys/ioctl.h>

#include "core/clock.h"
#include "stream/relay_send.h"
#include "support/stream_fixture.h"

class Relay : public StreamTest {
 protected:
  Relay() { active = true; }

  SendOutcome send(const std::string &data) {
    return relay_send({.socket = cloud.ours.get(),
                       .peer = RelayPeer::CLOUD,
                       .active = &active,
                       .health = &health,
                       .sent = &sent},
                      data.data(), data.size(), Follows::NOTHING);
  }

  static std::string retry_lines(const std::string &peer, int64_t last) {
    std::string lines;
    for (int retry = 1; retry <= last; retry++) {
      lines += "[INFO ] " + peer + " send retry " + std::to_string(retry) +
               "/5: No buffer space available\n";
    }
    return lines;
  }

  // Bytes that a cloud which does not read leaves in the send queue.
  void fill_queue() {
    const std::string data(1 << 20, 'x');
    while (::send(cloud.ours.get(), data.data(), data.size(), MSG_DONTWAIT) > 0) {
    }
  }

  TcpPair cloud;
  AtomicFlag active;
  RelayHealth health = {.checked = 0};
  uint64_t sent = 0;
};

// What the sends meet, to the result, error, score, retries and pauses. A time-out is two sends
// without room, one before and one after waiting for it. Bytes moved reset the delay, but not the
// count.
TEST_F(Relay, SendFollowsTheRetryRule) {
  for (const auto &[steps, expected] : rows(R"(
111 -> 0 0 100 0: | iiiiiiiiiiii -> 0 0 100 0: | rw -> 0 0 100 0:
rrrrrrrrrrrrrr -> 0 0 93 0: 10 20 40 80 100 100 100 | fffff -> 0 0 50 5: 10 20 40 80 100
fff1frrfif -> 3 105 49 5: 10 20 40 10 20 40 | 1p -> 2 32 100 0: | fc -> 2 104 90 1: 10
)")) {
    cloud = TcpPair();
    health.score = 100;
    sent = 0;
    const FrozenClock clock;
    const SendScript script(steps);
    const SendOutcome outcome = send(std::string(8192, 'd'));
    std::string lines = log.take();
    if (!lines.empty()) lines += "\n";
    const auto retries = std::count(lines.begin(), lines.end(), '\n');
    std::ostringstream seen;
    seen << int(outcome.result) << " " << outcome.error << " " << health.score << " " << retries
         << ":";
    for (const int64_t pause : clock.pauses)
      seen << " " << pause;
    EXPECT_EQ(seen.str(), expected) << steps;
    EXPECT_EQ(lines, retry_lines("Cloud", retries)) << steps;
    EXPECT_EQ(sent == 8192, outcome.result == SendResult::SENT) << steps;
    EXPECT_EQ(sent > 0 ? get(cloud.far).size() : 0, sent) << steps;
  }
}

// The next send decides; while poll() keeps failing, nothing may spin until the time-out.
TEST_F(Relay, APollThatFailsGoesBackToTheSend) {
  const FrozenClock clock;
  const SendScript script("rrr");
  int polls = 0;
  const Hook failing(poll_call, [&polls](auto...) {
    if (++polls == 100) proxy_context.running = false;
    errno = ENOMEM;
    return -1;
  });
  EXPECT_EQ(send("x").result, SendResult::SENT);
  EXPECT_LT(polls, 10);
}

TEST_F(Relay, WhatIsOnItsWayIsWaitedForWithinBounds) {
  for (const auto &[state, waited_ms] : rows(R"(
idle -> 0 | not read -> 1000 | reset -> 0 | stopped -> 0
)")) {
    cloud = TcpPair();
    put(cloud.far, "one more word");
    if (state != "idle") fill_queue();
    if (state == "reset") cloud.far = Fd();  // with bytes unread
    proxy_context.running = state != "stopped";
    FrozenClock clock;
    const int64_t began = monotonic_ms();
    relay_settle(cloud.ours.get(), stream.get());
    EXPECT_EQ(std::to_string(monotonic_ms() - began), waited_ms) << state;
    int unread = -1;
    EXPECT_EQ(ioctl(cloud.ours.get(), FIONREAD, &unread), 0);
    EXPECT_EQ(unread, 0) << state;
  }
}

TEST_F(Relay, CloudsDirectionSaysThatItStoppedBeforeItEndsTheRelay) {
  const TcpPair camera;
  RelayContext relay = {.cloud_fd = cloud.ours.get(),
                        .camera_fd = camera.ours.get(),
                        .active = &active,
                        .stream = stream.get(),
                        .end_lock = {},
                        .left = {}};
  cloud.far = Fd();
  bool active_at_line = false;
  const Hook stamps(time_call, [&](time_t *) { active_at_line = active; });
  relay_cloud_to_camera(&relay);
  EXPECT_TRUE(active_at_line && !active);
  EXPECT_TRUE(log.take().ends_with("[DEBUG] Cloud to camera thread stopped"));
}

// The camera answers the handshake and, once the relay runs, does what the test says.
class WholeRelay : public Relay {
 protected:
  // Runs one relay until it ends; the log from the streaming status on.
  std::string run(bool expected = true) {
    stream->port = camera.port();
    EXPECT_EQ(stream_proxy(cloud.ours.get(), stream.get(), "OPTIONS\r\nCSeq: 1\r\n\r\n"), expected);
    cloud.ours = Fd();
    runs++;
    EXPECT_TRUE(becomes_true([&] { return served == runs; }));
    cloud = TcpPair();
    const std::string lines = log.take();
    return lines.substr(lines.find("-> streaming\n") + sizeof "-> streaming");
  }

  static constexpr char CLOUD_CLOSED[] =
      "[DEBUG] Stream 1 error: [104] Cloud connection closed (read failed)\n"
      "[DEBUG] Cloud to camera thread stopped\n";
  static constexpr char OFFLINE[] =
      "[DEBUG] Stream 1 status change: error -> offline\n"
      "[DEBUG] Camera to cloud thread stopping";

  int runs = 0;
  std::atomic<int> served = 0;
  std::function<void(const Fd &)> plays = [](const Fd &client) { get(client); };
  LoopbackServer camera{[this](const Fd &client) {
    get(client);
    put(client, "RTSP/1.0 200 OK\r\n\r\n");
    if (becomes_true([&] { return log.has("-> streaming"); })) plays(client);
    served++;
  }};
};

TEST_F(WholeRelay, WithoutItsSecondThreadItDoesNotStart) {
  const Hook fault(pthread_create_call, [](auto...) { return EAGAIN; });
  EXPECT_EQ(run(false), "[DEBUG] Stream 1 error: [11] Failed to create proxy thread");
}

TEST_F(WholeRelay, SixthFailedSendEndsIt) {
  for (const bool to_camera : {true, false}) {
    if (to_camera) put(cloud.far, "PLAY");
    plays = [&](const Fd &client) {
      if (!to_camera) put(client, "media");
      get(client);
    };
    const SendScript script("wwffffff");
    const std::string peer = to_camera ? "Camera" : "Cloud";
    const std::string stopped = "\n[DEBUG] Cloud to camera thread stopped";
    EXPECT_EQ(run(), retry_lines(peer, 5) + "[DEBUG] Stream 1 error: [105] " + peer +
                         " send error\n[ERROR] " + peer + " send error: No buffer space available" +
                         (to_camera ? stopped + "\n" + OFFLINE : "\n" + (OFFLINE + stopped)));
  }
}

// A chunk that fills the buffer waits for what follows it, and goes when nothing does.
TEST_F(WholeRelay, FullBuffersAreJoinedAndPushed) {
  plays = [this](const Fd &client) {
    get(cloud.far);  // the camera's answer
    for (const size_t size : {2 * TRANSFER_SIZE, size_t{100}, TRANSFER_SIZE}) {
      put(client, std::string(size, 'm'));
      for (size_t arrived = 0; arrived < size;)
        arrived += get(cloud.far).size();
    }
  };
  const int fd = cloud.ours.get();
  std::string events;
  const Hook sends(send_call, [&](int socket, auto, auto, int flags) {
    if (socket == fd) events += flags & MSG_MORE ? "more " : "send ";
  });
  const Hook pushes(setsockopt_call, [&](int socket, int level, int option, auto, auto) {
    if (socket == fd && level == IPPROTO_TCP && option == TCP_NODELAY) events += "push ";
  });
  run();
  EXPECT_EQ(events, "send push more more push send more push push ");
}

TEST_F(WholeRelay, PoorHealthEndsItUnlessTheOtherDirectionHas) {
  for (const bool other_is_first : {false, true}) {
    // Each chunk that arrives takes half a minute of the health check's time. The score is 50 after
    // the first one, then falls by 5 with each.
    WallClock wall(1'000'000);
    plays = [&](const Fd &client) {
      for (; !get(cloud.far).empty(); wall.now += 30)
        put(client, "media");
    };
    const SendScript script("wwfffffwfwfwf");
    int pushes = 0;  // the second of the cloud's comes between the check and the end
    const Hook push(setsockopt_call, [&](int fd, int, int option, auto, auto) {
      if (fd != cloud.ours.get() || option != TCP_NODELAY || ++pushes != 2) return;
      if (other_is_first) shutdown(cloud.far.get(), SHUT_WR);
      EXPECT_TRUE(!other_is_first || becomes_true([&] { return log.has("thread stopped"); }));
    });
    const std::string lines = run();
    EXPECT_EQ(lines.find("[INFO ] Connection health poor (4") == std::string::npos, other_is_first);
    const std::string poor = "[DEBUG] Stream 1 error: [0] Refreshing unhealthy connection\n";
    const std::string report = (other_is_first ? CLOUD_CLOSED : poor) + OFFLINE;
    EXPECT_NE(lines.find(report), std::string::npos) << lines;
  }
}

// The camera ends while the cloud's direction is amid its report.
TEST_F(WholeRelay, NoReasonComesAfterOffline) {
  std::atomic<bool> hangs_up = false;
  plays = [&](const Fd &) { becomes_true([&] { return hangs_up.load(); }); };
  const Hook report(allocation_call, [&] {
    hangs_up = true;
    becomes_true([&] { return log.has("-> offline"); }, 500);
  });
  shutdown(cloud.far.get(), SHUT_WR);
  EXPECT_EQ(run(), std::string(CLOUD_CLOSED) + OFFLINE);
}
