// Runs a fuzz harness over the inputs of the directories (or files) named on
// the command line, once each, without libFuzzer: the normal test run and
// its sanitizer build replay every committed seed and every past finding.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void collect(const std::string &path, std::vector<std::string> &files)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
        files.push_back(path);
        return;
    }
    DIR *d = opendir(path.c_str());
    if (!d) return;
    while (const dirent *e = readdir(d))
        if (e->d_name[0] != '.') collect(path + "/" + e->d_name, files);
    closedir(d);
}

}  // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++) collect(argv[i], files);
    std::sort(files.begin(), files.end());
    for (const std::string &f : files) {
        std::ifstream in(f, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        fprintf(stderr, "%s\n", f.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    printf("%zu inputs replayed\n", files.size());
    return files.empty() ? 1 : 0;
}
