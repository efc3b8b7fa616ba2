/// \file
/// The files that consoles may read: opening them safely, answering from them in bounded pieces.
#pragma once

#include <string>

#include <KivFramework/KivMd5.h>

namespace agent {

/// An open file that knows how much of it is to be read.
///
/// The file counts as it was when it was opened: what is appended meanwhile is not read, and
/// becoming shorter is an error.
class readable_file {
public:
    /// Takes over a descriptor of a regular file.
    ///
    /// \param name  what messages call it.
    readable_file(int file, std::string name);
    ~readable_file();
    readable_file(readable_file&& other) noexcept;
    readable_file(const readable_file&) = delete;
    readable_file& operator=(const readable_file&) = delete;
    readable_file& operator=(readable_file&&) = delete;

    const std::string& name() const { return name_; }

    /// Whether all of it has been read.
    bool at_end() const { return left_ == 0; }

    /// Reads the next piece, of at most 96 KiB: small enough for other peers not to notice, and a
    /// multiple of the three bytes that Base64 packs together.
    ///
    /// Throws `refusal` when that fails.
    std::string next_piece();

private:
    int file_;
    std::string name_;
    long long left_ = 0;
};

/// The regular files below one directory.
class file_area {
public:
    /// \param directory  absolute; empty for no files at all.
    ///
    /// Throws `refusal` when there is no such directory.
    explicit file_area(const std::string& directory);
    ~file_area();
    file_area(const file_area&) = delete;
    file_area& operator=(const file_area&) = delete;

    /// Opens a file.
    ///
    /// \param path  relative to the directory, without "..", and without symbolic links on its way,
    ///              so that nothing outside can be named.
    ///
    /// Throws `refusal` with the reason.
    readable_file open(const std::string& path) const;

private:
    int directory_ = -1;
};

/// The answer to a question about a file, given a piece at a time.
class file_answer {
public:
    enum class kind { digest, contents };

    file_answer(readable_file file, kind wanted);

    /// Reads one more piece of the file.
    ///
    /// \returns what to send now, maybe nothing: Base64 of a piece of the contents, or the line of
    ///          the digest once all is read.
    ///
    /// Throws `refusal` when the file cannot be read.
    std::string advance();

    /// Whether the answer is complete.
    bool at_end() const { return file_.at_end(); }

    kind wanted() const { return wanted_; }

private:
    readable_file file_;
    kind wanted_;
    KivFramework::KivMd5::md5_state_s digest_{};
};

} // namespace agent
