// What most tests include of the libraries they stand on, read once for each
// program. Only what is not ours, so that it seldom changes; the tests include
// what they use all the same and build without it
// (CMAKE_DISABLE_PRECOMPILE_HEADERS).

#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <xercesc/sax/HandlerBase.hpp>
