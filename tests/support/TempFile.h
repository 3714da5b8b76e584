// A temporary file that the code under test writes to, through its stream or its descriptor.
#pragma once

#include <cstdio>
#include <fstream>
#include <iterator>
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
        std::ifstream in("/proc/self/fd/" + std::to_string(fd()), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // What was written since the last call.
    std::string fresh() {
        std::string out = contents().substr(read_);
        read_ += out.size();
        return out;
    }

private:
    std::FILE* file_;
    std::size_t read_ = 0;
};
