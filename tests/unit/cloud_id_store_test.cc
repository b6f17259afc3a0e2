#include "cloud/cloud_id_store.h"

#include <sys/resource.h>

#include "support/agent_test.h"

using CloudIdStore = AgentTest;

TEST_F(CloudIdStore, SaysWhyTheFileCannotBeReadOrWritten) {
  const TempDir dir;
  const std::string path = dir.file("cloud.id");
  proxy_context.config.config_dir = const_cast<char *>(dir.path().c_str());
  const auto lines = [&] { return std::regex_replace(log.take(), std::regex(path), "*"); };
  Text id;
  EXPECT_FALSE(read_cloud_id_file(&id));
  EXPECT_EQ(lines(), "");  // the normal first start
  std::filesystem::create_directory(path);
  EXPECT_FALSE(read_cloud_id_file(&id) || save_cloud_id_file("abcd%s-_1"));
  EXPECT_EQ(lines(),
            "[ERROR] Failed to open *: Is a directory\n"
            "[ERROR] Failed to open * for writing: Is a directory");
  std::filesystem::remove(path);
  write_file(path, std::string(100, 'x'));
  EXPECT_TRUE(save_cloud_id_file("abcd%s-_1"));
  EXPECT_EQ(read_file(path), "abcd%s-_1\n");
  EXPECT_EQ(lines(), "[DEBUG] Saved cloud ID to *");
  // No file may grow, as on a disk that is full.
  signal(SIGXFSZ, SIG_IGN);
  const rlimit none = {};
  setrlimit(RLIMIT_FSIZE, &none);
  EXPECT_FALSE(save_cloud_id_file("abcd%s-_1"));
  EXPECT_EQ(lines(), "[ERROR] Failed to flush cloud ID to *: File too large");
}
