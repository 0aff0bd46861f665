#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "tools/mivra/Doorbell.h"

namespace Mivra::Tool {

/// Writes to a file on a thread of its own, while the thread that makes the data goes on. What is written is
/// what was handed over, in that order. One thread hands over, and makes and destroys the object.
class WriteBehind {
public:
    /// Starts the thread; std::system_error when there is none to be had. The descriptor is the caller's and
    /// stays open while the object lives; it has to be that of a regular file.
    explicit WriteBehind(int descriptor);
    /// Writes what was handed over.
    ~WriteBehind();
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;

    /// Takes a copy, to be written at the offset, or where the file stands for kWhereItStands. Waits while a
    /// few are on their way. Returns the errno of the first write so far that failed, after which nothing is
    /// written any more; 0: none.
    int Write(const std::uint8_t* data, int size, std::int64_t offset);
    /// Waits until all is written; the same result.
    int Drain();
    /// How many of the pieces handed over are in the file.
    std::uint64_t Written() const { return written.load(); }

    static constexpr std::int64_t kWhereItStands = -1;

private:
    struct Piece {
        std::vector<std::uint8_t> bytes;
        std::int64_t offset = 0;
    };

    void run();
    void store(const Piece& piece);

    const int descriptor;
    std::array<Piece, 4> ring;
    std::atomic<std::uint64_t> handed{0};
    std::atomic<std::uint64_t> handled{0};  // written, or dropped after a failure
    std::atomic<std::uint64_t> written{0};
    std::atomic<int> error{0};
    std::atomic<bool> ending{false};
    Doorbell toWrite;
    Doorbell roomAgain;
    std::thread thread;  // last: it uses all of the above
};

/// Writes all of it, repeating what a signal cuts short; 0 or the errno.
int writeAll(int descriptor, const std::uint8_t* data, std::size_t size, std::int64_t offset);

}  // namespace Mivra::Tool
