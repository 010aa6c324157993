// Gives a fuzz target the inputs that are known, in place of a fuzzer: every file of a directory, as an ordinary test.
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static bool replay(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file.is_open()) {
        return false;
    }
    printf("%s\n", path.c_str());  // the last one told is the one that crashed
    fflush(stdout);
    const std::unique_ptr<uint8_t[]> data(new uint8_t[text.size()]);  // of its exact size: a look behind it is noticed
    text.copy(reinterpret_cast<char *>(data.get()), text.size());
    LLVMFuzzerTestOneInput(data.get(), text.size());
    return true;
}

int main(int argc, char **argv) {
    const std::string directory = argc == 2 ? argv[1] : ".";
    DIR *dir = opendir(directory.c_str());
    int count = 0;
    for (struct dirent *entry; dir != nullptr && (entry = readdir(dir)) != nullptr;) {
        const std::string name = entry->d_name;
        count += name[0] != '.' && replay(directory + "/" + name) ? 1 : 0;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
