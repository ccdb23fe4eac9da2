// What listing and extraction share of the archive reader.

#ifndef FILES_BLOCK_LIST_H
#define FILES_BLOCK_LIST_H

#include "files/extractsja.h"
#include "platform/handle.h"

#include <cstddef>
#include <memory>

// An entry's name begins this many bytes after the entry's first byte.
inline constexpr std::uint64_t ENTRY_HEADER_SIZE = 11;

// Owns a block and all that follow it.
using BlockList = std::unique_ptr<block_info, Release<free_block_list>>;

// The blocks of the archive, whichever form it has; empty when it is not an archive, holds no entry or cannot be
// read to its end. Throws std::bad_alloc.
BlockList walk_archive(FILE* archive);

#endif
