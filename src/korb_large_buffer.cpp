#include "src/korb_large_buffer.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23 // Linux 5.14; older kernels refuse it, harmlessly
#endif

namespace Korb {

namespace {
constexpr quintptr HugePage = 2 * 1024 * 1024;

quintptr pageSize()
{
    return quintptr(sysconf(_SC_PAGESIZE));
}

quintptr roundUp(quintptr n, quintptr to)
{
    return (n + to - 1) & ~(to - 1);
}
} // namespace

LargeBuffer::LargeBuffer(qint64 size)
{
    if (size <= 0)
        return;
    if (quintptr(size) < HugePage) {
        m_data = static_cast<char *>(std::calloc(size_t(size), 1));
        m_size = m_data ? size : 0;
        return;
    }
    const quintptr page = pageSize();
    const quintptr length = roundUp(quintptr(size), page);
    // Over-mapped by a huge page, then cut to the aligned part and a guard
    // page behind it (the cut leaves at least a page there).
    const quintptr mapped = length + HugePage;
    void *const map = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED)
        return;
    const quintptr begin = quintptr(map);
    const quintptr aligned = roundUp(begin, HugePage);
    const quintptr guard = aligned + length;
    if (aligned > begin)
        munmap(map, aligned - begin);
    if (begin + mapped > guard + page)
        munmap(reinterpret_cast<void *>(guard + page), begin + mapped - guard - page);
    mprotect(reinterpret_cast<void *>(guard), page, PROT_NONE);
    m_data = reinterpret_cast<char *>(aligned);
    m_size = size;
    m_mapped = qint64(length);
    ASAN_POISON_MEMORY_REGION(m_data + m_size, size_t(m_mapped - m_size));
    madvise(m_data, size_t(m_mapped), MADV_HUGEPAGE); // where the kernel has none, small pages
}

LargeBuffer::LargeBuffer(LargeBuffer &&other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0)),
      m_mapped(std::exchange(other.m_mapped, 0))
{
}

LargeBuffer &LargeBuffer::operator=(LargeBuffer &&other) noexcept
{
    if (this != &other) {
        release();
        m_data = std::exchange(other.m_data, nullptr);
        m_size = std::exchange(other.m_size, 0);
        m_mapped = std::exchange(other.m_mapped, 0);
    }
    return *this;
}

LargeBuffer::~LargeBuffer()
{
    release();
}

void LargeBuffer::populate()
{
    if (m_mapped)
        madvise(m_data, size_t(m_mapped), MADV_POPULATE_WRITE);
}

void LargeBuffer::clear(qint64 used)
{
    if (!m_data)
        return;
    std::memset(m_data, 0, size_t(qBound(qint64(0), used, m_size)));
    if (m_mapped)
        madvise(m_data, size_t(m_mapped), MADV_FREE);
}

void LargeBuffer::release()
{
    if (m_mapped) {
        ASAN_UNPOISON_MEMORY_REGION(m_data, size_t(m_mapped));
        munmap(m_data, size_t(m_mapped) + pageSize());
    } else {
        std::free(m_data);
    }
    m_data = nullptr;
    m_size = m_mapped = 0;
}

} // namespace Korb
