#include "cloud/cloud_id_store.h"

#include <string.h>
#include <unistd.h>

#include <string>

#include "support/agent_test.h"
#include "support/fault.h"

class CloudIdStore : public AgentTest {
 protected:
  CloudIdStore() { proxy_context.config.config_dir = directory_; }

  TempDir dir;
  const std::string path = dir.file("cloud.id");

  // The ID that is read, or "none" when there is none.
  static std::string read() {
    Text id(strdup("old"));
    const bool found = read_cloud_id_file(&id);
    EXPECT_EQ(found, id != nullptr);
    return found ? id.get() : "none";
  }

 private:
  char *directory_ = const_cast<char *>(dir.path().c_str());
};

TEST_F(CloudIdStore, ReadsTheTrimmedFirstLineOf8To50Bytes) {
  struct Case {
    std::string content;
    std::string expected;
    const char *log;  // with the path
  };
  static constexpr char READ[] = "[DEBUG] Read cloud ID from %s\n";
  static constexpr char LENGTH[] = "[ERROR] Invalid cloud ID length in %s\n";
  for (const Case &c : {
           Case{"  abcdefgh  \n", "abcdefgh", READ},
           {"\t\v\f\rabcd efgh\r\n", "abcd efgh", READ},
           {"abcdefgh\nignored", "abcdefgh", READ},
           {std::string(50, 'x'), std::string(50, 'x'), READ},
           {std::string(78, ' ') + std::string(50, 'x') + "yz", std::string(50, 'x'), READ},
           {"abcdefg\n", "none", LENGTH},
           {std::string(51, 'x'), "none", LENGTH},
           {std::string(121, ' ') + "abcdefgh", "none", LENGTH},
           {"\nabcdefgh\n", "none", LENGTH},
           {"", "none", ""},
       }) {
    write_file(path, c.content);
    EXPECT_EQ(read(), c.expected);
    std::string expected_log = c.log;
    if (!expected_log.empty()) expected_log.replace(expected_log.find("%s"), 2, path);
    EXPECT_EQ(log.take(), expected_log) << c.content;
  }
}

TEST_F(CloudIdStore, SaysWhyTheFileCannotBeRead) {
  EXPECT_EQ(read(), "none");
  EXPECT_EQ(log.take(), "");  // the normal first start

  std::filesystem::create_directory(path);
  EXPECT_EQ(read(), "none");
  EXPECT_EQ(log.take(), "[ERROR] Failed to open " + path + ": Is a directory\n");
  std::filesystem::remove(path);

  // The first page of an address space is never there.
  std::filesystem::create_symlink("/proc/self/mem", path);
  EXPECT_EQ(read(), "none");
  EXPECT_EQ(log.take(), "[ERROR] Error reading from " + path + ": Input/output error\n");

  EXPECT_FALSE(read_cloud_id_file(nullptr));
  proxy_context.config.config_dir = nullptr;
  EXPECT_FALSE(save_cloud_id_file("abcdefgh"));
  EXPECT_EQ(log.take(),
            "[ERROR] Invalid parameters for filesystem cloud ID lookup\n"
            "[ERROR] Invalid parameters for filesystem cloud ID save\n");
}

TEST_F(CloudIdStore, SavesTheIdAndALineFeed) {
  write_file(path, std::string(100, 'x'));
  EXPECT_TRUE(save_cloud_id_file("abcd%s-_1"));
  EXPECT_EQ(read_file(path), "abcd%s-_1\n");
  EXPECT_EQ(read(), "abcd%s-_1");
  EXPECT_EQ(log.take(),
            "[DEBUG] Saved cloud ID to " + path + "\n[DEBUG] Read cloud ID from " + path + "\n");
}

TEST_F(CloudIdStore, SaysWhyTheFileCannotBeWritten) {
  EXPECT_FALSE(save_cloud_id_file(nullptr));
  EXPECT_EQ(log.take(), "[ERROR] Invalid parameters for filesystem cloud ID save\n");

  std::filesystem::create_directory(path);
  EXPECT_FALSE(save_cloud_id_file("abcdefgh"));
  EXPECT_EQ(log.take(), "[ERROR] Failed to open " + path + " for writing: Is a directory\n");
  std::filesystem::remove(path);

  // No byte may be written: with a buffer that shows in the flush, without one in the write itself.
  const NoRoomForFiles full;
  EXPECT_FALSE(save_cloud_id_file("abcdefgh"));
  EXPECT_EQ(log.take(), "[ERROR] Failed to flush cloud ID to " + path + ": File too large\n");
  const UnbufferedFiles unbuffered;
  EXPECT_FALSE(save_cloud_id_file("abcdefgh"));
  EXPECT_EQ(log.take(), "[ERROR] Failed to write cloud ID to " + path + ": File too large\n");
}

TEST_F(CloudIdStore, FailedAllocationsAreReported) {
  write_file(path, "abcdefgh\n");
  EXPECT_EQ(fail_each_allocation(Times::ONCE,
                                 [](const Fault &fault) {
                                   const std::string id = read();
                                   EXPECT_EQ(id, fault.struck() ? "none" : "abcdefgh");
                                 }),
            3);
  EXPECT_EQ(fail_each_allocation(Times::FROM_THEN_ON,
                                 [](const Fault &fault) {
                                   const bool saved = save_cloud_id_file("12345678");
                                   EXPECT_EQ(saved, !fault.struck());
                                 }),
            1);
  EXPECT_EQ(log.take(),
            "[ERROR] Failed to allocate memory for filepath\n"
            "[ERROR] Failed to allocate buffer for reading cloud ID\n"
            "[ERROR] Failed to allocate memory for cloud ID\n"
            "[DEBUG] Read cloud ID from " +
                path +
                "\n"
                "[ERROR] Failed to allocate memory for filepath\n"
                "[DEBUG] Saved cloud ID to " +
                path + "\n");
}
