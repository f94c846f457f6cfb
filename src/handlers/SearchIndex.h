#pragma once

class MetadataIndex;

// The metadata index the request handlers search and read item attributes from. The application sets it
// once at start-up; without one, searches find nothing and items have no metadata.
namespace SearchIndex {

void setCurrent(MetadataIndex *index);
MetadataIndex *current();

} // namespace SearchIndex
