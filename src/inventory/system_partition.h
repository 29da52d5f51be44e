#pragma once

#include <vector>

// Record of one partition. The inventory takes none: the queries that give partitions find nothing.
class CSystemPartition {};

// The partitions of a drive.
using CSystemPartitionList = std::vector<CSystemPartition>;
