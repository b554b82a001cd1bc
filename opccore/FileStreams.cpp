#include <opccore/FileStreams.hpp>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <streambuf>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <opccore/FileDescriptor.hpp>
#include <opccore/StagedFile.hpp>
#include <opccore/SystemError.hpp>

namespace opc::detail {

namespace {

constexpr std::size_t BufferBytes = 65536;

/// A block whose bytes are not set: a package may open a stream for each of 100,000 small parts.
std::unique_ptr<char[]> newBlock() {
    return std::unique_ptr<char[]>(new char[BufferBytes]);
}

int toWhence(std::ios_base::seekdir direction) {
    if (direction == std::ios_base::beg)
        return SEEK_SET;
    return direction == std::ios_base::cur ? SEEK_CUR : SEEK_END;
}

/// Reads a file in blocks; knows its position without asking the system.
class InputFileBuffer final : public std::streambuf {
public:
    explicit InputFileBuffer(FileDescriptor file) : file_(std::move(file)) {}

protected:
    int_type underflow() override {
        if (gptr() == egptr())
            fill();
        return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
    }

    std::streamsize xsgetn(char* target, std::streamsize count) override {
        std::streamsize done = 0;
        while (done < count) {
            if (gptr() == egptr() && count - done >= static_cast<std::streamsize>(BufferBytes)) {
                auto const got = file_.read(target + done, static_cast<std::size_t>(count - done));
                if (got == 0)
                    return done;
                blockEnd_ += static_cast<off_type>(got);
                done += static_cast<std::streamsize>(got);
                continue;
            }
            if (traits_type::eq_int_type(underflow(), traits_type::eof()))
                return done;
            auto const available = std::min<std::streamsize>(egptr() - gptr(), count - done);
            std::copy_n(gptr(), available, target + done);
            gbump(static_cast<int>(available));
            done += available;
        }
        return done;
    }

    pos_type seekoff(off_type offset, std::ios_base::seekdir direction, std::ios_base::openmode /*which*/) override {
        off_type const position = blockEnd_ - (egptr() - gptr());
        if (direction == std::ios_base::cur && offset == 0)
            return position;
        if (direction == std::ios_base::cur) {
            direction = std::ios_base::beg;
            offset += position;
        }
        if (direction == std::ios_base::beg && offset < 0)
            return pos_type(off_type(-1));
        blockEnd_ = file_.seek(offset, toWhence(direction));
        setg(block_.get(), block_.get(), block_.get());
        return blockEnd_;
    }

    pos_type seekpos(pos_type position, std::ios_base::openmode which) override {
        return seekoff(off_type(position), std::ios_base::beg, which);
    }

private:
    void fill() {
        auto const got = file_.read(block_.get(), BufferBytes);
        blockEnd_ += static_cast<off_type>(got);
        setg(block_.get(), block_.get(), block_.get() + got);
    }

    FileDescriptor file_;
    std::unique_ptr<char[]> block_ = newBlock();
    off_type blockEnd_ = 0; // offset in the file of the byte after the block
};

class InputFileStream final : public std::istream {
public:
    InputFileStream(FileDescriptor file, bool atEnd) : std::istream(nullptr), buffer_(std::move(file)) {
        rdbuf(&buffer_);
        exceptions(std::ios_base::badbit);
        if (atEnd)
            seekg(0, std::ios_base::end);
    }

private:
    InputFileBuffer buffer_;
};

/// Writes a file in blocks. A failed write throws, and so does every later one: what follows a gap is worth nothing.
class OutputFileBuffer final : public std::streambuf {
public:
    /// Opens the file, or creates it; `flags` are those of open(2).
    OutputFileBuffer(std::string const& path, int flags) : file_(path, flags, 0666) { resetBlock(); }

    FileDescriptor& file() { return file_; }

    void writeBlock() {
        write(pbase(), static_cast<std::size_t>(pptr() - pbase()));
        resetBlock();
    }

protected:
    /// Called with a character only: nobody else than the public functions of the base class can call it.
    int_type overflow(int_type character) override {
        writeBlock();
        return sputc(traits_type::to_char_type(character));
    }

    std::streamsize xsputn(char const* source, std::streamsize count) override {
        if (count > epptr() - pptr())
            writeBlock();
        if (count >= static_cast<std::streamsize>(BufferBytes)) {
            write(source, static_cast<std::size_t>(count));
        } else {
            std::copy_n(source, count, pptr());
            pbump(static_cast<int>(count));
        }
        return count;
    }

    int sync() override {
        writeBlock();
        return 0;
    }

    pos_type seekoff(off_type offset, std::ios_base::seekdir direction, std::ios_base::openmode /*which*/) override {
        writeBlock();
        return file_.seek(offset, toWhence(direction));
    }

    pos_type seekpos(pos_type position, std::ios_base::openmode which) override {
        return seekoff(off_type(position), std::ios_base::beg, which);
    }

private:
    void write(char const* source, std::size_t count) {
        if (std::exchange(incomplete_, true))
            throwSystemError("Could not write on after a failure to", file_.path(), EIO);
        file_.write(source, count);
        incomplete_ = false;
    }

    void resetBlock() { setp(block_.get(), block_.get() + BufferBytes); }

    std::unique_ptr<char[]> block_ = newBlock(); // first: without memory for it no file may be emptied
    FileDescriptor file_;
    bool incomplete_ = false; // a write failed
};

class OutputFileStream final : public std::ostream {
public:
    OutputFileStream(std::string const& path, int flags, OnWriteFailure onFailure)
        : std::ostream(nullptr),
          buffer_(path, flags),
          status_(buffer_.file().status()) {
        rdbuf(&buffer_);
        if (onFailure == OnWriteFailure::Throw)
            exceptions(std::ios_base::badbit | std::ios_base::failbit);
    }

    ~OutputFileStream() override {
        try {
            if (!finish())
                undo();
        } catch (...) {
            // Nobody is left to be told.
        }
    }

private:
    /// Writes what is left and closes; whether the file is whole. Asking the stream's own state as well catches the
    /// insertion that broke off half-way because its source failed.
    bool finish() {
        try {
            buffer_.writeBlock();
            buffer_.file().close();
            return !fail();
        } catch (...) {
            return false; // whoever opens the file will find it missing
        }
    }

    /// Removes the file, or what was appended to it.
    void undo() {
        auto const path = followLinks(buffer_.file().path());
        auto const now = statusOfEntry(path);
        bool const isStillThere = now && now->st_dev == status_.st_dev && now->st_ino == status_.st_ino;
        if (!isStillThere || !S_ISREG(status_.st_mode))
            return;
        if (status_.st_size == 0) {
            removeFile(path);
        } else {
            [[maybe_unused]] auto const refused = ::truncate(path.c_str(), status_.st_size);
        }
    }

    OutputFileBuffer buffer_;
    struct stat status_; // when it was opened, and emptied if it was to be
};

} // namespace

std::shared_ptr<std::istream> openInputStream(std::string const& nativePath, bool atEnd) {
    FileDescriptor file(nativePath, O_RDONLY);
    if (S_ISDIR(file.status().st_mode))
        throwSystemError("Could not open", nativePath, EISDIR);
    return std::make_shared<InputFileStream>(std::move(file), atEnd);
}

std::shared_ptr<std::ostream> openOutputStream(std::string const& nativePath, bool append, OnWriteFailure onFailure) {
    int const flags = O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC);
    return std::make_shared<OutputFileStream>(nativePath, flags, onFailure);
}

} // namespace opc::detail
