// SPDX-License-Identifier: MIT

#include "tests/reliability/RecordedDisk.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <linux/fuse.h>
#include <linux/loop.h>
#include <linux/major.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/FailedStep.h"

namespace tarnvale::test {
namespace {

constexpr const char* servedFile = "/run/recorded-disk";
constexpr std::uint32_t maxWrite = 128 * 1024;
constexpr std::size_t piece = std::size_t{64} << 10U;
constexpr int attempts = 500;

struct RecordHead {
    DiskEvent::Kind kind;
    std::uint32_t size;
    std::uint64_t offset;
};

void append(int record, RecordHead head, const char* bytes) {
    // One call, so that the processes' entries don't mix.
    std::array<iovec, 2> parts{
        {{.iov_base = &head, .iov_len = sizeof head},
         {.iov_base = const_cast<char*>(bytes), .iov_len = head.size}}};
    if (::writev(record, parts.data(), parts.size()) < 0) {
        ::_exit(1);
    }
}

/// Answers the kernel, which takes the file for one of a file system of ours.
class FileServer {
public:
    FileServer(int kernel, char* bytes, std::size_t size, int record)
        : kernel_(kernel), bytes_(bytes), size_(size), record_(record) {}

    /// Until the file is no longer mounted.
    void serve() {
        std::vector<char> request(maxWrite + 4096);
        while (true) {
            const auto got = ::read(kernel_, request.data(), request.size());
            if (got >= static_cast<ssize_t>(sizeof(fuse_in_header))) {
                answer(request.data());
            } else if (errno == EPERM) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));  // not mounted yet
            } else if (errno != EINTR && errno != EAGAIN && errno != ENOENT) {
                return;
            }
        }
    }

private:
    template <class Out>
    void reply(const Out& out) {
        send(0, &out, sizeof out);
    }

    void send(int error, const void* data, std::size_t size) {
        fuse_out_header head{
            .len = static_cast<std::uint32_t>(sizeof head + size),
            .error = -error,
            .unique = unique_};
        const std::array<iovec, 2> parts{
            {{.iov_base = &head, .iov_len = sizeof head},
             {.iov_base = const_cast<void*>(data), .iov_len = size}}};
        static_cast<void>(::writev(kernel_, parts.data(), parts.size()));
    }

    void answer(const char* request) {
        fuse_in_header head{};
        std::memcpy(&head, request, sizeof head);
        unique_ = head.unique;
        const char* const body = request + sizeof head;
        switch (head.opcode) {
            case FUSE_INIT:
                initialise(body);
                break;
            case FUSE_GETATTR:
            case FUSE_SETATTR:
                reply(attributes());
                break;
            case FUSE_OPEN:
                reply(fuse_open_out{});
                break;
            case FUSE_READ:
                read(body);
                break;
            case FUSE_WRITE:
                write(body);
                break;
            case FUSE_FSYNC:
                append(record_, {.kind = DiskEvent::Kind::flush, .size = 0, .offset = 0}, nullptr);
                send(0, nullptr, 0);
                break;
            case FUSE_FLUSH:
            case FUSE_RELEASE:
            case FUSE_DESTROY:
                send(0, nullptr, 0);
                break;
            case FUSE_STATFS:
                reply(fuse_statfs_out{});
                break;
            case FUSE_FORGET:
            case FUSE_BATCH_FORGET:
            case FUSE_INTERRUPT:
                break;  // no answer is wanted
            default:
                send(ENOSYS, nullptr, 0);
        }
    }

    void initialise(const char* body) {
        fuse_init_in in{};
        std::memcpy(&in, body, 4 * sizeof(std::uint32_t));
        fuse_init_out out{};
        out.major = FUSE_KERNEL_VERSION;
        out.minor = FUSE_KERNEL_MINOR_VERSION;
        out.max_readahead = in.max_readahead;
        out.flags = FUSE_BIG_WRITES | FUSE_MAX_PAGES;
        out.max_background = 16;
        out.congestion_threshold = 12;
        out.max_write = maxWrite;
        out.time_gran = 1;
        out.max_pages = maxWrite / 4096;
        reply(out);
    }

    fuse_attr_out attributes() const {
        fuse_attr_out out{};
        out.attr_valid = 3600;
        out.attr.ino = FUSE_ROOT_ID;
        out.attr.size = size_;
        out.attr.mode = S_IFREG | S_IRUSR | S_IWUSR;
        out.attr.nlink = 1;
        out.attr.blksize = 4096;
        return out;
    }

    void read(const char* body) {
        fuse_read_in in{};
        std::memcpy(&in, body, sizeof in);
        const auto offset = std::min<std::size_t>(in.offset, size_);
        send(0, bytes_ + offset, std::min<std::size_t>(in.size, size_ - offset));
    }

    void write(const char* body) {
        fuse_write_in in{};
        std::memcpy(&in, body, sizeof in);
        if (in.offset > size_ || in.size > size_ - in.offset) {
            send(ENOSPC, nullptr, 0);
            return;
        }
        const char* const data = body + sizeof in;
        std::copy_n(data, in.size, bytes_ + in.offset);
        append(
            record_, {.kind = DiskEvent::Kind::write, .size = in.size, .offset = in.offset}, data);
        reply(fuse_write_out{.size = in.size, .padding = 0});
    }

    int kernel_;
    char* bytes_;
    std::size_t size_;
    int record_;
    std::uint64_t unique_ = 0;
};

/// Tries again for a moment while the kernel still lets go of it.
template <class Call>
bool persistently(const Call& call) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (call() == 0) {
            return true;
        }
        if (errno != EBUSY && errno != EAGAIN && errno != ENXIO) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

}  // namespace

DiskImage::DiskImage(const std::string& file) : size_(std::filesystem::file_size(file)) {
    const support::UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    void* const mapped =
        fd ? ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd.get(), 0) : MAP_FAILED;
    if (mapped == MAP_FAILED) {
        fail(file);
    }
    bytes_ = static_cast<char*>(mapped);
    const auto size = static_cast<off_t>(size_);
    for (off_t begin = ::lseek(fd.get(), 0, SEEK_DATA); begin >= 0 && begin < size;) {
        const off_t end = ::lseek(fd.get(), begin, SEEK_HOLE);
        for (auto at = static_cast<std::size_t>(begin) / piece;
             at * piece < static_cast<std::size_t>(end);
             ++at) {
            pieces_.insert(at);
        }
        begin = ::lseek(fd.get(), end, SEEK_DATA);
    }
}

DiskImage::~DiskImage() {
    ::munmap(bytes_, size_);
}

void DiskImage::write(const DiskEvent& event) {
    std::copy(event.bytes.begin(), event.bytes.end(), bytes_ + event.offset);
    for (auto at = event.offset / piece; at * piece < event.offset + event.bytes.size(); ++at) {
        pieces_.insert(at);
    }
}

void DiskImage::copyTo(int file) const {
    for (const auto at : pieces_) {
        const auto offset = at * piece;
        const auto length = std::min(piece, size_ - offset);
        if (::pwrite(file, bytes_ + offset, length, static_cast<off_t>(offset)) !=
            static_cast<ssize_t>(length)) {
            fail("copy the disk");
        }
    }
}

LoopDevice::LoopDevice(int file) {
    const support::UniqueFd control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    if (!control) {
        fail("/dev/loop-control");
    }
    loop_config config{};
    config.fd = static_cast<std::uint32_t>(file);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    // Somebody else may take the free one first.
    if (!persistently([&] {
            const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
            // In a container's /dev a new one doesn't show up.
            path_ = "/run/loop-device-" + std::to_string(number);
            ::mknod(
                path_.c_str(),
                S_IFBLK | S_IRUSR | S_IWUSR,
                ::makedev(LOOP_MAJOR, static_cast<unsigned>(number)));
            device_.reset(::open(path_.c_str(), O_RDWR | O_CLOEXEC));
            return !device_ ? -1 : ::ioctl(device_.get(), LOOP_CONFIGURE, &config);
        })) {
        fail("attach a loop device");
    }
}

DiskRecord::DiskRecord() : file_(::memfd_create("disk-record", MFD_CLOEXEC)) {
    if (!file_ || ::fcntl(file_.get(), F_SETFL, O_APPEND) != 0) {
        fail("memfd_create");
    }
}

void DiskRecord::mark(std::uint64_t number) const {
    append(file_.get(), {.kind = DiskEvent::Kind::mark, .size = 0, .offset = number}, nullptr);
}

std::vector<DiskEvent> DiskRecord::events() const {
    std::vector<DiskEvent> events;
    RecordHead head{};
    off_t place = 0;
    while (::pread(file_.get(), &head, sizeof head, place) == sizeof head) {
        std::string bytes(head.size, '\0');
        place += sizeof head;
        if (::pread(file_.get(), bytes.data(), bytes.size(), place) !=
            static_cast<ssize_t>(bytes.size())) {
            fail("read the record");
        }
        place += static_cast<off_t>(bytes.size());
        events.push_back({.kind = head.kind, .offset = head.offset, .bytes = std::move(bytes)});
    }
    return events;
}

RecordedDisk::RecordedDisk(const DiskImage& image, const DiskRecord& record) {
    try {
        serveFrom(image, record);
        const support::UniqueFd file(::open(servedFile, O_RDWR | O_CLOEXEC));
        if (!file) {
            fail(servedFile);
        }
        device_ = std::make_unique<LoopDevice>(file.get());
    } catch (const std::system_error&) {
        end();
        throw;
    }
}

RecordedDisk::~RecordedDisk() {
    end();
}

/// By a process of its own: whoever uses the device waits for it without end.
void RecordedDisk::serveFrom(const DiskImage& image, const DiskRecord& record) {
    const support::UniqueFd kernel(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!kernel) {
        fail("/dev/fuse");
    }
    server_ = ::fork();
    if (server_ < 0) {
        fail("fork");
    }
    if (server_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        // What is written goes into this process's copy.
        FileServer(kernel.get(), image.bytes(), image.size(), record.file()).serve();
        ::_exit(0);
    }
    std::ofstream(servedFile).flush();
    const std::string options =
        "fd=" + std::to_string(kernel.get()) + ",rootmode=100600,user_id=0,group_id=0";
    if (::mount("recorded-disk", servedFile, "fuse", 0, options.c_str()) != 0) {
        fail("mount a file of ours");
    }
    isMounted_ = true;
}

void RecordedDisk::end() {
    device_.reset();
    if (isMounted_) {
        persistently([] { return ::umount2(servedFile, 0); });
        isMounted_ = false;
    }
    if (server_ > 0) {
        ::kill(server_, SIGKILL);
        ::waitpid(server_, nullptr, 0);
        server_ = -1;
    }
}

ReplayedDisk::ReplayedDisk(std::size_t size)
    : size_(size), file_(::memfd_create("replayed-disk", MFD_CLOEXEC)) {
    if (!file_ || ::ftruncate(file_.get(), static_cast<off_t>(size)) != 0) {
        fail("memfd_create");
    }
}

void ReplayedDisk::become(const DiskImage& image, const std::vector<const DiskEvent*>& writes) {
    device_.reset();  // and with it what the kernel remembers of it
    if (::fallocate(
            file_.get(),
            FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
            0,
            static_cast<off_t>(size_)) != 0) {
        fail("empty the disk");
    }
    image.copyTo(file_.get());
    for (const auto* const write : writes) {
        const auto& bytes = write->bytes;
        if (::pwrite(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(write->offset)) !=
            static_cast<ssize_t>(bytes.size())) {
            fail("write to the disk");
        }
    }
    device_ = std::make_unique<LoopDevice>(file_.get());
}

}  // namespace tarnvale::test
