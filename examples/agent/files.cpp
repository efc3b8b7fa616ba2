#include "files.h"

#include "configuration.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <KivFramework/KivBase64.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

constexpr long long piece_size = 96LL * 1024;
static_assert(piece_size % 3 == 0, "the Base64 of a piece must need no padding");

// Closes a descriptor at the end of a block.
class closer {
public:
    explicit closer(int descriptor) : descriptor_(descriptor) {}
    ~closer() { reset(-1); }
    closer(const closer&) = delete;
    closer& operator=(const closer&) = delete;

    int get() const { return descriptor_; }
    int release() { return std::exchange(descriptor_, -1); }
    void reset(int descriptor) {
        if (descriptor_ != -1) {
            ::close(descriptor_);
        }
        descriptor_ = descriptor;
    }

private:
    int descriptor_;
};

std::string base64_of(const std::string& bytes) {
    char* text = nullptr;
    KivBase64::EncodeAlloc(bytes.data(), bytes.size(), &text);
    std::string result(text);
    KivBase64::DeleteBuffer(&text);
    return result;
}

// The line that md5sum would print, which it can also check.
std::string digest_line(md5_state_s& state, const std::string& name) {
    std::array<unsigned char, 16> digest{};
    std::array<char, 33> text{};
    KivMd5::md5_finish(&state, digest.data());
    return std::string(KivMd5::md5_string(digest.data(), text.data())) + "  " + name + "\n";
}

} // namespace

agent::readable_file::readable_file(int file, std::string name)
    : file_(file), name_(std::move(name)) {
    struct stat facts {};
    if (::fstat(file_, &facts) == 0) {
        left_ = facts.st_size;
    }
}

agent::readable_file::readable_file(readable_file&& other) noexcept
    : file_(std::exchange(other.file_, -1)), name_(std::move(other.name_)), left_(other.left_) {}

agent::readable_file::~readable_file() {
    if (file_ != -1) {
        ::close(file_);
    }
}

std::string agent::readable_file::next_piece() {
    std::string piece(static_cast<std::size_t>(std::min(left_, piece_size)), '\0');
    for (std::size_t filled = 0; filled < piece.size();) {
        const ssize_t count = ::read(file_, piece.data() + filled, piece.size() - filled);
        if (count > 0) {
            filled += static_cast<std::size_t>(count);
        } else if (count == 0) {
            throw refusal(name_ + ": became shorter while it was read");
        } else if (errno != EINTR) {
            throw refusal(name_ + ": " + error_text(errno));
        }
    }
    left_ -= static_cast<long long>(piece.size());
    return piece;
}

agent::file_area::file_area(const std::string& directory) {
    if (directory.empty()) {
        return;
    }
    directory_ = ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (directory_ == -1) {
        throw refusal("the files directory " + directory + " cannot be used: " + error_text(errno));
    }
}

agent::file_area::~file_area() {
    if (directory_ != -1) {
        ::close(directory_);
    }
}

agent::readable_file agent::file_area::open(const std::string& path) const {
    if (directory_ == -1) {
        throw refusal("no files can be read: the configuration has no directory in [files]");
    }
    // One step at a time, so that no step can be a link that leads elsewhere.
    closer place(-1);
    std::size_t start = 0;
    for (bool is_last = false; !is_last;) {
        const std::size_t end = path.find('/', start);
        const std::string step = path.substr(start, end - start);
        is_last = end == std::string::npos;
        start = end + 1;
        if (step.empty() || step == "." || step == "..") {
            throw refusal("'" + path + "' is not a path below the files directory");
        }
        // Without O_NONBLOCK the opening of a FIFO would wait for its writer.
        const int flags = is_last ? O_RDONLY | O_NONBLOCK | O_NOCTTY : O_PATH | O_DIRECTORY;
        const int from = place.get() == -1 ? directory_ : place.get();
        const int next = ::openat(from, step.c_str(), flags | O_NOFOLLOW | O_CLOEXEC);
        if (next == -1) {
            const int error = errno;
            throw refusal(
                path + ": " +
                (error == ELOOP ? "a symbolic link, which is not followed" : error_text(error)));
        }
        place.reset(next);
    }
    struct stat facts {};
    if (::fstat(place.get(), &facts) == -1) {
        throw refusal(path + ": " + error_text(errno));
    }
    if (S_ISDIR(facts.st_mode)) {
        throw refusal(path + ": a directory");
    }
    if (!S_ISREG(facts.st_mode)) {
        throw refusal(path + ": not a regular file");
    }
    return {place.release(), path};
}

agent::file_answer::file_answer(readable_file file, kind wanted)
    : file_(std::move(file)), wanted_(wanted) {
    KivMd5::md5_init(&digest_);
}

std::string agent::file_answer::advance() {
    const std::string piece = file_.next_piece();
    if (wanted_ == kind::contents) {
        return base64_of(piece);
    }
    KivMd5::md5_append(&digest_, reinterpret_cast<const unsigned char*>(piece.data()),
                       static_cast<int>(piece.size()));
    return at_end() ? digest_line(digest_, file_.name()) : std::string();
}
