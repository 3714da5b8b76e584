// A temporary file that the code under test writes to, through its stream or its descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>

class TempFile {
public:
    TempFile() : file_(std::tmpfile()) { if (!file_) throw std::runtime_error("no temporary file"); }
    TempFile(TempFile const&) = delete;
    TempFile& operator=(TempFile const&) = delete;
    ~TempFile() { std::fclose(file_); }

    std::FILE* file() const { return file_; }
    int fd() const { return fileno(file_); }

    // Everything written so far, by either way; reading does not move the writer's position.
    std::string contents() const {
        std::fflush(file_);
        std::string out;
        char chunk[1 << 16];
        for (off_t at = 0;;) {
            ssize_t const r = ::pread(fd(), chunk, sizeof chunk, at);
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) break;
            out.append(chunk, static_cast<std::size_t>(r));
            at += r;
        }
        return out;
    }
    // What was written since the last call.
    std::string fresh() {
        std::string all = contents();
        std::string out = all.substr(read_);
        read_ = all.size();
        return out;
    }

private:
    std::FILE* file_;
    std::size_t read_ = 0;
};
