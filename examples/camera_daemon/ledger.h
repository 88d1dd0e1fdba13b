// What a run of the daemon has served, and what its scenario expects of it.
#pragma once

#include <string>
#include <vector>

class Ledger {
 public:
  // A ledger remembers the descriptors that are open now: make it first.
  Ledger();

  // `most` 0: any number from `least` on.
  void expect(const std::string& what, int least, int most);
  void count(const std::string& what);
  int counted(const std::string& what) const;
  bool allReached() const;  // every `least`

  // Prints the table and what the process has left open; true when all is as expected.
  bool close() const;

 private:
  struct Row {
    std::string what;
    int least;
    int most;
    int served;
  };
  std::vector<Row> rows;
  int descriptorsAtStart;
};
