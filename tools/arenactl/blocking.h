// Who stands in whose way on a file: what each record keeps others from.
#pragma once

#include "table.h"

#include <string>
#include <vector>

struct Obstacle {
    const TableRecord *record;
    std::vector<std::string> stops;  // "reading these bytes", "opens that write", ...
    // The opens of others that it keeps from what they were opened for. Who else wants to open the
    // file, and will be refused, is not in the table.
    std::vector<const TableRecord *> affected;
};

// In the order of the file's records, without those that hinder nobody.
std::vector<Obstacle> obstaclesIn(const TableFile &file);
