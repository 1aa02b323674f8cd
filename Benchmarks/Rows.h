#pragma once

#include "Benchmarks/Measure.h"

namespace benchmarks {

/// Each measures a few figures and adds them to the table; std::runtime_error or rehearsal::Failure when something does
/// not work at all.

void logRows(const Plan& plan, Table& table);
void listRow(const Plan& plan, Table& table);

void imageRow(const Plan& plan, Table& table);
void pagesRow(const Plan& plan, Table& table);
void bundleRow(const Plan& plan, Table& table);

void downloadRows(const Plan& plan, Table& table);
void installRow(const Plan& plan, Table& table);
void startRow(const Plan& plan, Table& table);

void idleRows(const Plan& plan, Table& table);
void checksRows(const Plan& plan, Table& table);
void installsRows(const Plan& plan, Table& table);

void fleetRows(const Plan& plan, Table& table);

}  // namespace benchmarks
