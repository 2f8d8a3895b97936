// Archives read back entry by entry, each entry checked against its CRC.

#include <zip.h>

#include "tests/support/Internal.h"

namespace veltest {

std::map<std::string, ArchiveFile> ReadArchive(const std::string& path) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
  std::map<std::string, ArchiveFile> entries;
  EXPECT_NE(archive, nullptr) << "not an archive: " << path;
  if (!archive) return entries;
  for (zip_uint64_t i = 0; i < static_cast<zip_uint64_t>(zip_get_num_entries(archive, 0)); ++i) {
    zip_stat_t st;
    zip_stat_index(archive, i, 0, &st);
    std::string data(st.size, '\0');
    zip_file_t* file = zip_fopen_index(archive, i, 0);
    // Reading to the end checks the entry's CRC.
    char more = 0;
    EXPECT_TRUE(file &&
                zip_fread(file, data.data(), st.size) == static_cast<zip_int64_t>(st.size) &&
                zip_fread(file, &more, 1) == 0)
        << "damaged entry " << st.name;
    if (file) zip_fclose(file);
    entries[st.name] = {data, st.comp_method};
  }
  zip_close(archive);
  return entries;
}

std::vector<std::string> ArchiveNames(const std::string& archive) {
  std::vector<std::string> names;
  for (const auto& entry : ReadArchive(archive)) names.push_back(entry.first);
  return names;
}

std::vector<std::string> ArchiveLeaves(const std::string& archive) {
  std::vector<std::string> leaves;
  for (const std::string& name : ArchiveNames(archive)) leaves.push_back(Leaf(name));
  std::sort(leaves.begin(), leaves.end());
  return leaves;
}

std::string ArchiveEntry(const std::string& archive, const std::string& leaf) {
  std::vector<std::string> found;
  for (const auto& [name, file] : ReadArchive(archive))
    if (Leaf(name) == leaf) found.push_back(file.data);
  EXPECT_EQ(found.size(), 1u) << leaf;
  return found.empty() ? "" : found[0];
}

}  // namespace veltest
