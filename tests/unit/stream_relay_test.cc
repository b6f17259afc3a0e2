#include "stream/relay.h"

#include "core/clock.h"
#include "stream/relay_send.h"
#include "support/stream_fixture.h"

class Relay : public StreamTest {
 protected:
  Relay() { active = true; }

  SendOutcome send(const std::string &data) {
    return relay_send({.socket = cloud.ours.get(),
                       .source = camera.ours.get(),
                       .peer = RelayPeer::CLOUD,
                       .active = &active,
                       .health = &health,
                       .sent = &sent,
                       .watch = &watch},
                      data.data(), data.size(), Follows::NOTHING);
  }

  // Bytes that a cloud which does not read leaves in the send queue, until it takes no more.
  void fill_queue() {
    const std::string data(1 << 20, 'x');
    for (int full = 0; full < 2; full++) {
      while (::send(cloud.ours.get(), data.data(), data.size(), MSG_DONTWAIT) > 0)
        full = 0;
      usleep(50'000);
    }
  }

  static constexpr char OFFLINE[] =
      "[DEBUG] Stream 1 status change: error -> offline\n"
      "[DEBUG] Camera to cloud thread stopping";

  TcpPair cloud;
  TcpPair camera;
  RelayWatch watch = {.cloud_fd = cloud.ours.get(), .camera_fd = camera.ours.get()};
  AtomicFlag active;
  RelayContext relay = {cloud.ours.get(), camera.ours.get(), &active, stream.get(), {}, {}};
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
    const std::string lines = log.raw();
    log.take();
    const auto retries = std::count(lines.begin(), lines.end(), '\n');
    std::ostringstream seen;
    seen << int(outcome.result) << " " << outcome.error << " " << health.score << " " << retries
         << ":";
    for (const int64_t pause : clock.pauses)
      seen << " " << pause;
    EXPECT_EQ(seen.str(), expected) << steps;
    EXPECT_EQ(sent == 8192, outcome.result == SendResult::SENT) << steps;
    EXPECT_EQ(sent > 0 ? get(cloud.far).size() : 0, sent) << steps;
  }
}

// A send times out after 120 s without room; a camera that has ended is not waited for that long.
TEST_F(Relay, RoomIsWaitedForWithinBounds) {
  fill_queue();
  for (const auto &[camera_is, expected] : rows("there -> 1 120010 | gone -> 4 5000")) {
    if (camera_is == "gone") camera.far = Fd();
    proxy_context.running = true;
    FrozenClock clock(1);
    const Hook waits(poll_call, [&clock](pollfd *fds, nfds_t count, int timeout) {
      const int ready = poll_call.real(fds, count, 0);
      if (ready == 0) clock.pass(timeout);
      return ready;
    });
    const int64_t began = monotonic_ms();
    const auto result = int(send("x").result);
    EXPECT_EQ(std::to_string(result) + " " + std::to_string(monotonic_ms() - began), expected)
        << camera_is;
  }
}

TEST_F(Relay, TheCloudsLastWordIsNotLeftUnread) {
  put(cloud.far, "one more word");
  relay_settle(cloud.ours.get(), stream.get());
  char byte = 0;
  EXPECT_EQ(recv(cloud.ours.get(), &byte, 1, MSG_DONTWAIT), -1);
}

// Its queue stays as long as it was.
TEST_F(Relay, ACloudThatHasResetIsNotWaitedFor) {
  fill_queue();
  cloud.far = Fd();  // with bytes unread
  const FrozenClock clock;
  relay_settle(cloud.ours.get(), stream.get());
  EXPECT_TRUE(clock.pauses.empty());
}

// Milliseconds since its last sign of life, times sent again, probes unanswered. Two looks find it
// dead, and a dead one is not waited for either.
TEST_F(Relay, PeersAreDeadWhenNothingComesThoughAnswersAreDue) {
  fill_queue();
  static constexpr struct {
    uint32_t silent;
    uint8_t sent_again, probes;
    bool dead;
  } STATES[] = {
      {44999, 9, 9, false}, {45000, 0, 0, false}, {45000, 1, 0, true}, {45000, 0, 1, true}};
  for (const auto &[silent, sent_again, probes, dead] : STATES) {
    tcp_info info = {};
    info.tcpi_last_ack_recv = silent;
    info.tcpi_retransmits = sent_again;
    info.tcpi_probes = probes;
    const Hook knows(getsockopt_call, [&info](auto, auto, auto, void *value, auto) {
      memcpy(value, &info, sizeof info);
      return 0;
    });
    FrozenClock clock;
    watch = {.cloud_fd = cloud.ours.get(), .camera_fd = camera.ours.get()};
    EXPECT_TRUE(relay_watch(&watch) && relay_watch(&watch));
    clock.pass(WATCH_STEP_MS);
    EXPECT_EQ(relay_watch(&watch), !dead) << silent << " " << int{probes};
    relay_settle(cloud.ours.get(), stream.get());
    EXPECT_EQ(clock.pauses.empty(), dead);
  }
}

TEST_F(Relay, WithoutItsSecondThreadItDoesNotStart) {
  const LoopbackServer server([](const Fd &client) {
    get(client);
    put(client, "RTSP/1.0 200 OK\r\n\r\n");
  });
  stream->port = server.port();
  const Hook fault(pthread_create_call, [](auto...) { return EAGAIN; });
  EXPECT_FALSE(stream_proxy(cloud.ours.get(), stream.get(), "CSeq: 1"));
  EXPECT_TRUE(log.take().ends_with("Stream 1 error: [11] Failed to create proxy thread"));
}

TEST_F(Relay, SixthFailedSendEndsIt) {
  put(cloud.far, "PLAY");
  put(camera.far, "media");
  for (const std::string peer : {"Camera", "Cloud"}) {
    const FrozenClock clock;
    const SendScript script("ffffff");
    active = true;
    peer == "Cloud" ? relay_camera_to_cloud(&relay, 0) : relay_cloud_to_camera(&relay);
    std::string lines;
    for (const char *retry : {"1", "2", "3", "4", "5"})
      lines += "[INFO ] " + peer + " send retry " + retry + "/5: No buffer space available\n";
    lines += "[DEBUG] Stream 1 error: [105] " + peer + " send error\n[ERROR] " + peer +
             " send error: No buffer space available\n";
    lines += peer == "Cloud" ? OFFLINE : "[DEBUG] Cloud to camera thread stopped";
    EXPECT_EQ(log.take(), lines);
  }
}

// A chunk that fills the buffer waits for what follows it, and goes when nothing does.
TEST_F(Relay, FullBuffersAreJoinedAndPushed) {
  std::string events;
  const Hook sends(send_call, [&events](auto, auto, auto, int flags) {
    events += flags & MSG_MORE ? "more " : "send ";
  });
  const Hook pushes(setsockopt_call, [this, &events](auto...) {
    events += "push ";
    if (events == "more more push ") put(camera.far, std::string(TRANSFER_SIZE, 'm'));
    if (!events.ends_with("push more push ")) return;
    put(camera.far, "the last");
    shutdown(camera.far.get(), SHUT_WR);
  });
  put(camera.far, std::string(2 * TRANSFER_SIZE, 'm'));
  relay_camera_to_cloud(&relay, 0);
  EXPECT_EQ(events, "more more push more push send push ");
}

// Half a minute passes with each chunk. The score is 50 after the first one.
TEST_F(Relay, PoorHealthEndsIt) {
  time_t now = 0;
  const Hook wall(time_call, [&now](auto) { return now += 15; });
  const FrozenClock clock;
  const SendScript script("fffffwf");
  put(camera.far, std::string(3 * TRANSFER_SIZE, 'm'));
  relay_camera_to_cloud(&relay, 0);
  EXPECT_TRUE(log.take().ends_with(
      std::string("\n[INFO ] Connection health poor (45/100), refreshing...\n"
                  "[DEBUG] Stream 1 error: [0] Refreshing unhealthy connection\n") +
      OFFLINE));
}

// The camera ends while the cloud's direction is amid its report.
TEST_F(Relay, NoReasonComesAfterOffline) {
  const Hook report(allocation_call, [this] {
    camera.far = Fd();
    becomes_true([this] { return log.has("-> offline"); }, 500);
  });
  shutdown(cloud.far.get(), SHUT_WR);
  std::thread other([this] { relay_cloud_to_camera(&relay); });
  relay_camera_to_cloud(&relay, 0);
  other.join();
  EXPECT_EQ(log.take(),
            std::string("[DEBUG] Stream 1 error: [104] Cloud connection closed (read failed)\n"
                        "[DEBUG] Cloud to camera thread stopped\n") +
                OFFLINE);
}
