// The file of the cloud ID: what is taken for one stands trimmed at the file's start, has an ID's
// length, and is read again as it was saved.
#include "cloud/cloud_id_store.h"
#include "target.h"

static void check(const std::string &content, const std::string &id) {
  REQUIRE(id.size() >= 8 && id.size() <= 50 && id.find('\n') == NONE && !isspace(id.back()));
  const size_t begin = content.find_first_not_of(" \t\v\f\r");
  REQUIRE(content.compare(begin, id.size(), id) == 0 && begin + id.size() <= 128);
  Text again;
  REQUIRE(save_cloud_id_file(id.c_str()) && read_cloud_id_file(&again) && again.get() == id);
}

void fuzz(Parts parts) {
  char folder[] = "/dev/shm/fuzz-cloud-id-XXXXXX";
  proxy_context.config.config_dir = mkdtemp(folder);
  const std::string path = std::string(folder) + "/cloud.id";
  File file(fopen(path.c_str(), "w"));
  fwrite(parts[0].data(), 1, parts[0].size(), file.get());
  file = nullptr;
  Text id;
  if (read_cloud_id_file(&id)) check(parts[0], id.get());
  unlink(path.c_str());
  rmdir(folder);
}
