#include "cloud/cloud_id_store.h"

#include <sys/stat.h>

#include "support/agent_test.h"

class CloudIdStore : public AgentTest {
 protected:
  CloudIdStore() { proxy_context.config.config_dir = const_cast<char *>(dir.path().c_str()); }

  std::string lines() { return std::regex_replace(log.take(), std::regex(path), "*"); }

  // The ID that is read, if any, and the log.
  std::string read() {
    Text id(strdup("old"));
    const bool found = read_cloud_id_file(&id);
    EXPECT_EQ(found, id != nullptr);
    return (found ? id.get() : "") + lines();
  }
  std::string save() {
    const bool saved = save_cloud_id_file("abcd%s-_1");
    return (saved ? "saved" : "") + lines();
  }

  TempDir dir;
  const std::string path = dir.file("cloud.id");
};

TEST_F(CloudIdStore, ReadsTheTrimmedFirstLineOf8To50Bytes) {
  const std::string id50(50, 'x');
  const std::string length = "[ERROR] Invalid cloud ID length in *";
  const std::string read_it = "[DEBUG] Read cloud ID from *";
  for (const auto &[content, expected] :
       {Row{"  abcdefgh  \n", "abcdefgh" + read_it},
        {"\t\v\f\rabcd efgh\r\nignored", "abcd efgh" + read_it},
        {std::string(78, ' ') + id50 + "yz", id50 + read_it},  // 128 bytes are looked at
        {std::string(121, ' ') + "abcdefgh", length},
        {"abcdefg\n", length},
        {id50 + "x", length},
        {"\nabcdefgh\n", length},
        {"", ""}}) {
    write_file(path, content);
    EXPECT_EQ(read(), expected) << content;
  }
}

TEST_F(CloudIdStore, SaysWhyTheFileCannotBeRead) {
  EXPECT_EQ(read(), "");  // the normal first start
  std::filesystem::create_directory(path);
  EXPECT_EQ(read(), "[ERROR] Failed to open *: Is a directory");
  EXPECT_EQ(save(), "[ERROR] Failed to open * for writing: Is a directory");
  std::filesystem::remove(path);
  proxy_context.config.config_dir = nullptr;
  EXPECT_EQ(read(), "[ERROR] Invalid parameters for filesystem cloud ID lookup");
}

TEST_F(CloudIdStore, SavesTheIdAndALineFeedDownToTheDisk) {
  write_file(path, std::string(100, 'x'));
  std::string synced;
  const Hook syncs(fsync_call, [&](int fd) {
    struct stat status = {};
    EXPECT_EQ(fstat(fd, &status), 0);
    synced += S_ISDIR(status.st_mode) ? "directory" : std::to_string(status.st_size) + " bytes, ";
  });
  EXPECT_EQ(save(), "saved[DEBUG] Saved cloud ID to *");
  EXPECT_EQ(synced, "10 bytes, directory");
  EXPECT_EQ(read_file(path), "abcd%s-_1\n");
}

TEST_F(CloudIdStore, SaysWhyTheFileCannotBeWritten) {
  for (const int nth : {1, 2}) {  // the file, the directory
    const Fault fault(fsync_call, nth, EIO);
    EXPECT_EQ(save(), "[ERROR] Failed to flush cloud ID to *: Input/output error") << nth;
  }
  // With a buffer a full disk shows in the flush, without one in the write itself.
  limit_files(0);
  EXPECT_EQ(save(), "[ERROR] Failed to flush cloud ID to *: File too large");
  const Hook unbuffered(fdopen_call, [](int fd, const char *mode) {
    FILE *file = fdopen_call.real(fd, mode);
    setvbuf(file, nullptr, _IONBF, 0);
    return file;
  });
  EXPECT_EQ(save(), "[ERROR] Failed to write cloud ID to *: File too large");
  limit_files(RLIM_INFINITY);
}

TEST_F(CloudIdStore, FailedAllocationsAreReported) {
  write_file(path, "abcdefgh\n");
  std::string results;
  fail_each_allocation([&](const auto &) { results += read() + "\n"; });
  fail_each_allocation([&](const auto &) { results += save() + "\n"; });
  EXPECT_EQ(results, R"([ERROR] Failed to allocate memory for filepath
[ERROR] Failed to allocate buffer for reading cloud ID
[ERROR] Failed to allocate memory for cloud ID
abcdefgh[DEBUG] Read cloud ID from *
[ERROR] Failed to allocate memory for filepath
saved[DEBUG] Saved cloud ID to *
)");
}
