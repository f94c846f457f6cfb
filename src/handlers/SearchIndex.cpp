#include "handlers/SearchIndex.h"

#include <atomic>

namespace SearchIndex {

namespace {
std::atomic<MetadataIndex *> s_current{nullptr};
} // namespace

void setCurrent(MetadataIndex *index)
{
    s_current.store(index);
}

MetadataIndex *current()
{
    return s_current.load();
}

} // namespace SearchIndex
