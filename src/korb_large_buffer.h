#pragma once

#include <QtGlobal>

namespace Korb {

// Memory for a buffer of many MiB that lives as long as the relay and is
// written through over and over: the scanner's fill, the queue of a
// recording. From 2 MiB up it is mapped on its own, aligned to the 2 MiB of
// a huge page and advised to use them, so that its first pass faults pages
// in 512 times less often. A fault costs about a microsecond on bare metal
// and over ten in a virtual machine that shadows page tables; at 4 KiB a
// page, the first pass through 64 MiB then holds the thread for a fifth of
// a second, longer than a socket holds the device's data at its highest
// rate. A smaller buffer gains nothing from that and comes from the heap.
class LargeBuffer
{
    Q_DISABLE_COPY(LargeBuffer)

public:
    LargeBuffer() = default;
    // Zero-filled, untouched, and a read past its end faults (a mapped
    // one's at once, a heap one's under the address sanitizer); null when
    // the memory cannot be had.
    explicit LargeBuffer(qint64 size);
    LargeBuffer(LargeBuffer &&other) noexcept;
    LargeBuffer &operator=(LargeBuffer &&other) noexcept;
    ~LargeBuffer();

    char *data() const { return m_data; }
    qint64 size() const { return m_size; }
    explicit operator bool() const { return m_data != nullptr; }

    // Faults every page in ahead (where the kernel can), without changing a
    // byte: safe while another thread writes into the buffer.
    void populate();
    // Zeroes the first `used` bytes and lets the kernel take the pages back
    // while the buffer waits; a page taken back reads as zero again.
    void clear(qint64 used);

private:
    void release();

    char *m_data = nullptr;
    qint64 m_size = 0;
    qint64 m_mapped = 0; // whole pages of a mapped buffer; 0 for one from the heap
};

} // namespace Korb
