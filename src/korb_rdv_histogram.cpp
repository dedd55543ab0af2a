#include "src/korb_rdv_histogram.h"

#include <algorithm>
#include <chrono>

qint64 KorbRdvHistogram::clockNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void KorbRdvHistogram::observe(qint64 ns)
{
    ns = qMax<qint64>(0, ns);
    const auto bucket = std::lower_bound(BoundsNs.begin(), BoundsNs.end(), ns) - BoundsNs.begin();
    ++m_buckets[size_t(bucket)];
    ++m_count;
    m_sumNs += ns;
}

qint64 KorbRdvHistogram::countUpTo(int i) const
{
    qint64 n = 0;
    for (int b = 0; b <= i && b < int(m_buckets.size()); ++b)
        n += m_buckets[size_t(b)];
    return n;
}
