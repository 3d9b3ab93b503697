// <regex> for the tests that match whole report texts.
#pragma once

// Under the sanitizers this compiler warns falsely inside the standard regex code.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
