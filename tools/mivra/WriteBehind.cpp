#include "tools/mivra/WriteBehind.h"

#include <unistd.h>

#include <cerrno>

namespace Mivra::Tool {

int writeAll(int descriptor, const std::uint8_t* data, std::size_t size, std::int64_t offset) {
    for (std::size_t done = 0; done < size;) {
        const ssize_t put =
            offset == WriteBehind::kWhereItStands
                ? ::write(descriptor, data + done, size - done)
                : ::pwrite(descriptor, data + done, size - done, offset + static_cast<std::int64_t>(done));
        if (put >= 0) {
            done += static_cast<std::size_t>(put);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

WriteBehind::WriteBehind(int file) : descriptor(file), thread([this] { run(); }) {}

WriteBehind::~WriteBehind() {
    ending.store(true);
    toWrite.Ring();
    thread.join();
}

int WriteBehind::Write(const std::uint8_t* data, int size, std::int64_t offset) {
    const std::uint64_t number = handed.load();
    roomAgain.WaitUntil([&] { return number - handled.load() < ring.size(); });
    Piece& piece = ring[number % ring.size()];
    piece.bytes.assign(data, data + size);
    piece.offset = offset;
    handed.store(number + 1);
    toWrite.Ring();
    return error.load();
}

int WriteBehind::Drain() {
    roomAgain.WaitUntil([&] { return handled.load() == handed.load(); });
    return error.load();
}

void WriteBehind::run() {
    for (std::uint64_t number = 0;; ++number) {
        toWrite.WaitUntil([&] { return handed.load() > number || ending.load(); });
        if (handed.load() == number) {
            return;
        }
        store(ring[number % ring.size()]);
        handled.store(number + 1);
        roomAgain.Ring();
    }
}

void WriteBehind::store(const Piece& piece) {
    if (error.load() == 0) {
        error.store(writeAll(descriptor, piece.bytes.data(), piece.bytes.size(), piece.offset));
        written.fetch_add(error.load() == 0 ? 1 : 0);
    }
}

}  // namespace Mivra::Tool
