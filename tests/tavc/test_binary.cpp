// The shipped daemon must run with libc alone: its dynamic section may name
// nothing but libc (and libdl where that is separate).
#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

// DT_NEEDED entries of a 64-bit ELF file, read from its section headers.
std::vector<std::string> needed(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::vector<char> img((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    std::vector<std::string> out;
    if (img.size() < sizeof(Elf64_Ehdr) || std::memcmp(img.data(), ELFMAG, SELFMAG) != 0 ||
        img[EI_CLASS] != ELFCLASS64)
        return {"<not a 64-bit ELF file>"};
    Elf64_Ehdr eh;
    std::memcpy(&eh, img.data(), sizeof eh);
    auto section = [&](size_t i) {
        Elf64_Shdr sh;
        std::memcpy(&sh, img.data() + eh.e_shoff + i * eh.e_shentsize, sizeof sh);
        return sh;
    };
    for (size_t i = 0; i < eh.e_shnum; ++i) {
        Elf64_Shdr dyn = section(i);
        if (dyn.sh_type != SHT_DYNAMIC) continue;
        Elf64_Shdr str = section(dyn.sh_link);
        for (size_t off = 0; off + sizeof(Elf64_Dyn) <= dyn.sh_size; off += sizeof(Elf64_Dyn)) {
            Elf64_Dyn d;
            std::memcpy(&d, img.data() + dyn.sh_offset + off, sizeof d);
            if (d.d_tag == DT_NULL) break;
            if (d.d_tag == DT_NEEDED) out.emplace_back(img.data() + str.sh_offset + d.d_un.d_val);
        }
    }
    return out;
}

}  // namespace

TEST(Binary, NeedsOnlyLibc) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "sanitizer runtimes are linked in this build";
#endif
    auto libs = needed(TAVC_BINARY);
    ASSERT_FALSE(libs.empty()) << TAVC_BINARY;
    const std::set<std::string> allowed{"libc.so.6", "libdl.so.2"};
    for (const auto &lib : libs) EXPECT_TRUE(allowed.count(lib)) << "tavc needs " << lib;
}
