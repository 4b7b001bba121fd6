// SPDX-License-Identifier: ISC
// What a command prints (standard output and error together), for the
// benchmarks that drive the lab through tavlab.
#pragma once

#include <cstdio>
#include <string>

namespace bench {

inline std::string sh(const std::string &cmd) {
    std::string out;
    if (FILE *p = popen((cmd + " 2>&1").c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        pclose(p);
    }
    return out;
}

}  // namespace bench
