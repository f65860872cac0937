// test_machine.h: a fresh machine for each test.
#pragma once
#include <gtest/gtest.h>
#include <string>
#include <vector>

// Hosted: moves the process to a new machine folder of its own below the build tree, and drops faults, limits, missing
// functions and the clock rate. Windows: empties the product's data folder of this system, Wine's or, where
// VORN_TESTS_MAY_EMPTY_PROGRAMDATA=yes says so, a real one's; elsewhere it ends the process. Both: the last error is 0.
void FreshMachine();

// True under Wine, where a few results differ from Windows': a test then says which, beside what Windows gives.
bool UnderWine();

// A fixture for tests that only need that.
class MachineTest : public ::testing::Test {
  protected:
    void SetUp() override { FreshMachine(); }
};

// A folder on the machine's drive C that exists and is empty, without trailing backslash; the same on both backends.
std::u16string TestFolder();
// Writes a whole file (plain attributes); fails the test when it cannot.
void WriteTestFile(const std::u16string &sPath, const std::string &sContent);
// The whole content; "<missing>" when it cannot be opened.
std::string ReadTestFile(const std::u16string &sPath);
bool        PathExists(const std::u16string &sPath);
// The names that a pattern finds, in the order of the enumeration, with "." and "..".
std::vector<std::u16string> NamesOf(const std::u16string &sPattern);
