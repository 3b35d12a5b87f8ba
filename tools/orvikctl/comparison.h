#pragma once

#include "blocks.h"
#include "input_file.h"

/// Reads an extent and compares it with as many bytes of `file`, from where it is.
/// Throws Failure that names the first byte that differs, and what ReadBlocks() and `file` throw.
void CompareBlocks(Transfers& transfers, const orvik::Capacity& capacity, const Extent& extent,
                   const BlockOptions& options, const char* step, InputFile& file);
