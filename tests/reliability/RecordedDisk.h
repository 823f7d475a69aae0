// SPDX-License-Identifier: MIT
//
// Block devices for a test. One records what is written to it, and when it was asked to make that
// durable; another one has what the first had at some instant.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

#include "support/UniqueFd.h"

namespace tarnvale::test {

/// What happened to a disk.
struct DiskEvent {
    enum class Kind : std::uint32_t {
        write,
        flush,  ///< what was written before is durable
        mark    ///< nothing: the test has noted something
    };

    Kind kind = Kind::mark;
    std::uint64_t offset = 0;  ///< of a mark, its number
    std::string bytes{};
};

/// What a disk holds, in this process's memory.
class DiskImage {
public:
    /// A copy of the file. Throws `std::system_error`.
    explicit DiskImage(const std::string& file);
    DiskImage(const DiskImage&) = delete;
    DiskImage& operator=(const DiskImage&) = delete;
    ~DiskImage();

    void write(const DiskEvent& event);

    /// Makes the file, which has the disk's size and is empty, one with the same content.
    void copyTo(int file) const;

    char* bytes() const { return bytes_; }
    std::size_t size() const { return size_; }

private:
    std::size_t size_ = 0;
    char* bytes_ = nullptr;
    std::set<std::size_t> pieces_;  ///< where it isn't empty
};

/// A loop device. It is gone as soon as neither this nor a file system uses it, also if this
/// process is killed.
class LoopDevice {
public:
    /// Over the opened file. Throws `std::system_error`.
    explicit LoopDevice(int file);
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;
    ~LoopDevice() = default;

    const std::string& path() const { return path_; }

private:
    std::string path_;
    support::UniqueFd device_;
};

class DiskRecord {
public:
    DiskRecord();

    /// Whoever reads the record finds the mark behind what was written before.
    void mark(std::uint64_t number) const;

    std::vector<DiskEvent> events() const;

    int file() const { return file_.get(); }

private:
    support::UniqueFd file_;
};

/// A disk that begins with the image's content. The image stays as it is.
class RecordedDisk {
public:
    /// A process of its own serves the loop device's file to the kernel. Throws
    /// `std::system_error`.
    RecordedDisk(const DiskImage& image, const DiskRecord& record);
    RecordedDisk(const RecordedDisk&) = delete;
    RecordedDisk& operator=(const RecordedDisk&) = delete;
    ~RecordedDisk();

    const std::string& path() const { return device_->path(); }

private:
    void serveFrom(const DiskImage& image, const DiskRecord& record);
    void end();

    pid_t server_ = -1;
    bool isMounted_ = false;
    std::unique_ptr<LoopDevice> device_;
};

/// A disk as a power cut leaves it.
class ReplayedDisk {
public:
    /// Throws `std::system_error`.
    explicit ReplayedDisk(std::size_t size);

    /// While nobody uses it: gives it the image's content and then these writes. It may get another
    /// path.
    void become(const DiskImage& image, const std::vector<const DiskEvent*>& writes);

    const std::string& path() const { return device_->path(); }

private:
    std::size_t size_;
    support::UniqueFd file_;
    std::unique_ptr<LoopDevice> device_;
};

}  // namespace tarnvale::test
