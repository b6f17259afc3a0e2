#include "stream/relay.h"

#include <poll.h>

#include <string>
#include <thread>
#include <vector>

#include "stream/relay_send.h"
#include "support/fault.h"
#include "support/peers.h"
#include "support/stream_fixture.h"

class Relay : public StreamTest {
 protected:
  Relay() { active = true; }

  RelayOutput output_to(const TcpPair &peer, RelayPeer kind) {
    return {.socket = peer.ours.get(),
            .peer = kind,
            .active = &active,
            .health = kind == RelayPeer::CLOUD ? &health : nullptr,
            .sent = kind == RelayPeer::CLOUD ? &sent : nullptr};
  }

  SendOutcome send(const TcpPair &peer, const std::string &data) {
    return relay_send(output_to(peer, RelayPeer::CLOUD), data.data(), data.size(),
                      Follows::NOTHING);
  }

  AtomicFlag active;
  RelayHealth health = {.checked = 0};
  uint64_t sent = 0;
};

static std::string retry_lines(const char *peer, int first, int last) {
  std::string lines;
  for (int retry = first; retry <= last; retry++) {
    lines += std::string("[INFO ] ") + peer + " send retry " + std::to_string(retry) +
             "/5: No buffer space available\n";
  }
  return lines;
}

TEST_F(Relay, SendFollowsTheRetryRule) {
  using Steps = std::vector<int>;
  using Pauses = std::vector<int64_t>;
  struct Case {
    Steps steps;
    SendResult result;
    int error;
    Pauses pauses;
    int score;
    std::string log;
  };
  static constexpr int FAILS = -ENOBUFS;
  // A time-out is two sends: one before and one after waiting for room.
  static constexpr int NO_ROOM = -EAGAIN;
  const std::string all = retry_lines("Cloud", 1, 5);
  const Pauses doubling = {10, 20, 40, 80, 100};
  const std::vector<Case> cases = {
      {{}, SendResult::SENT, 0, {}, 100, ""},
      {{1, 2, 3}, SendResult::SENT, 0, {}, 100, ""},
      {Steps(20, -EINTR), SendResult::SENT, 0, {}, 100, ""},
      {{NO_ROOM, WHOLE}, SendResult::SENT, 0, {}, 100, ""},
      {Steps(14, NO_ROOM), SendResult::SENT, 0, {10, 20, 40, 80, 100, 100, 100}, 93, ""},
      {Steps(5, FAILS), SendResult::SENT, 0, doubling, 50, all},
      {Steps(6, FAILS), SendResult::FAILED, ENOBUFS, doubling, 50, all},
      // Bytes moved reset the delay, but not the count.
      {{FAILS, FAILS, FAILS, 1, FAILS, NO_ROOM, NO_ROOM, FAILS, -EINTR, FAILS},
       SendResult::FAILED,
       ENOBUFS,
       {10, 20, 40, 10, 20, 40},
       49,
       all},
      {{4, -EPIPE}, SendResult::CLOSED, EPIPE, {}, 100, ""},
      {{FAILS, -ECONNRESET}, SendResult::CLOSED, ECONNRESET, {10}, 90, retry_lines("Cloud", 1, 1)},
  };
  const std::string data(8192, 'd');
  for (const Case &c : cases) {
    const TcpPair cloud;
    health.score = 100;
    sent = 0;
    const FrozenClock clock;
    const IoScript script(Io::SEND, c.steps);
    const SendOutcome outcome = send(cloud, data);
    EXPECT_EQ(outcome.result, c.result);
    EXPECT_EQ(outcome.error, c.error);
    EXPECT_TRUE(script.used_up());
    EXPECT_EQ(clock.pauses(), c.pauses);
    EXPECT_EQ(health.score, c.score);
    EXPECT_EQ(log.take(), c.log);
    if (c.result == SendResult::SENT) {
      EXPECT_EQ(sent, data.size());
      std::string arrived;
      while (arrived.size() < data.size())
        arrived += get(cloud.far);
      EXPECT_EQ(arrived, data);
    }
  }
}

TEST_F(Relay, SendStopsWithTheRelayAndWithTheAgent) {
  const TcpPair cloud;
  {
    const FrozenClock clock(3);  // the agent stops in the third pause
    const IoScript script(Io::SEND, std::vector<int>(4, -ENOBUFS));
    EXPECT_EQ(send(cloud, "x").result, SendResult::STOPPED);
    EXPECT_FALSE(script.used_up());
  }
  proxy_context.running = 1;
  active = 0;
  const IoScript script(Io::SEND, {1});
  EXPECT_EQ(send(cloud, "x").result, SendResult::STOPPED);
  EXPECT_FALSE(script.used_up());
}

// A chunk so large that it cannot fit in the buffers of a connection.
static void wait_until_full(const TcpPair &peer) {
  pollfd room = {.fd = peer.ours.get(), .events = POLLOUT, .revents = 0};
  for (int quiet = 0; quiet < 5;) {
    quiet = poll(&room, 1, 0) == 0 ? quiet + 1 : 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

TEST_F(Relay, SendWithoutRoomWaitsForThePeerOrTheEnd) {
  const std::string data(32 * 1024 * 1024, 'x');
  const TcpPair slow;
  // The far side shuts its own direction, which looks like the end of the relay to poll().
  shutdown(slow.far.get(), SHUT_WR);
  std::thread sender([&] { EXPECT_EQ(send(slow, data).result, SendResult::SENT); });
  wait_until_full(slow);
  size_t arrived = 0;
  while (arrived < data.size()) {
    const size_t part = get(slow.far).size();
    ASSERT_GT(part, 0U);
    arrived += part;
  }
  sender.join();

  const TcpPair stuck;
  std::thread ended([&] { EXPECT_EQ(send(stuck, data).result, SendResult::STOPPED); });
  wait_until_full(stuck);
  active = 0;
  shutdown(stuck.ours.get(), SHUT_RD);
  ended.join();
}

static constexpr char REQUEST[] = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
static constexpr char ANSWER[] = "RTSP/1.0 200 OK\r\n\r\n";

// The camera answers the handshake, then every message with "media", if it plays.
class WholeRelay : public Relay {
 protected:
  // Runs one relay over which the cloud asks to play; the log from the streaming status on.
  std::string run(bool expected) {
    stream->port = camera.port();
    put(cloud.far, "PLAY");
    EXPECT_EQ(stream_proxy(cloud.ours.get(), stream.get(), REQUEST), expected);
    const std::string lines = log.take();
    const size_t streaming = lines.find("offline -> streaming\n");
    return streaming == std::string::npos ? lines : lines.substr(lines.find('\n', streaming) + 1);
  }

  // The same for a relay that runs: without the other thread's line, which may come at any moment.
  std::string run_to_the_end() {
    std::string lines = run(true);
    const std::string stopped = "[DEBUG] Cloud to camera thread stopped\n";
    const size_t at = lines.find(stopped);
    return at == std::string::npos ? "never stopped\n" : lines.erase(at, stopped.size());
  }

  // Lets `whole` sends through and fails as many as follow; the first two are the handshake's.
  static std::vector<int> failing_after(size_t whole, size_t failing) {
    std::vector<int> steps(whole, WHOLE);
    steps.insert(steps.end(), failing, -ENOBUFS);
    return steps;
  }

  static constexpr char ENDED[] =
      "[DEBUG] Stream 1 status change: error -> offline\n"
      "[DEBUG] Camera to cloud thread stopping\n";

  std::atomic<bool> plays = false;
  TcpPair cloud;
  LoopbackServer camera{[this](const Fd &client) {
    get(client);
    put(client, ANSWER);
    while (!get(client).empty())
      put(client, plays ? "media" : "");
  }};
};

TEST_F(WholeRelay, StartFaultsAreReportedAndCloseTheCamera) {
  // Six settings come before the handshake, six more for the camera before the cloud's.
  for (const int nth : {7, 8, 13, 14}) {
    const Fault fault(Call::SETSOCKOPT, nth, EPERM);
    EXPECT_EQ(run(false),
              "[ERROR] Failed to set socket timeouts: Operation not permitted\n"
              "[DEBUG] Stream 1 error: [1] Failed to set streaming socket options\n");
    monitor_update_status(1, STREAM_OFFLINE);
    log.take();
  }
  const Fault fault(Call::PTHREAD_CREATE, 1, EAGAIN);
  EXPECT_EQ(run(false), "[DEBUG] Stream 1 error: [11] Failed to create proxy thread\n");
}

TEST_F(WholeRelay, SixthFailedSendToTheCloudEndsIt) {
  plays = true;
  const IoScript script(Io::SEND, failing_after(3, 6));
  EXPECT_EQ(run_to_the_end(), retry_lines("Cloud", 1, 5) +
                                  "[DEBUG] Stream 1 error: [105] Cloud send error\n"
                                  "[ERROR] Cloud send error: No buffer space available\n" +
                                  ENDED);
  EXPECT_TRUE(script.used_up());
  EXPECT_EQ(last_error(), "0 ");
}

TEST_F(WholeRelay, SixthFailedSendToTheCameraEndsIt) {
  const IoScript script(Io::SEND, failing_after(2, 6));
  EXPECT_EQ(run_to_the_end(), retry_lines("Camera", 1, 5) +
                                  "[DEBUG] Stream 1 error: [105] Camera send error\n"
                                  "[ERROR] Camera send error: No buffer space available\n" +
                                  ENDED);
  EXPECT_TRUE(script.used_up());
  EXPECT_EQ(get(cloud.far), ANSWER);
}

TEST_F(WholeRelay, PoorHealthEndsItAtADueCheck) {
  plays = true;
  WallClock wall(1'000'000);
  // The score is 50 after the first chunk, 45 after the second and 40 after the third.
  std::vector<int> steps = failing_after(3, 5);
  for (int chunk = 0; chunk < 2; chunk++)
    steps.insert(steps.end(), {WHOLE, WHOLE, -ENOBUFS});
  const IoScript script(Io::SEND, steps);
  std::thread viewer([&] {
    EXPECT_EQ(get(cloud.far), ANSWER);
    for (time_t now = 1'000'030; !get(cloud.far).empty(); now += 30) {
      wall.set(now);
      put(cloud.far, "PLAY");
    }
  });
  const std::string lines = run_to_the_end();
  shutdown(cloud.ours.get(), SHUT_RDWR);
  viewer.join();
  const size_t poor = lines.find("[INFO ] Connection health poor (4");
  ASSERT_NE(poor, std::string::npos) << lines;
  EXPECT_EQ(lines.substr(poor + 34), std::string("/100), refreshing...\n"
                                                 "[DEBUG] Stream 1 error: [0] Refreshing "
                                                 "unhealthy connection\n") +
                                         ENDED);
}
