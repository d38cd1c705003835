// The test table: every test's record in test-number order, ending with a null entry.
#pragma once
#include "options/Catalog.h"

extern const TestInfo* const kTestTable[];
