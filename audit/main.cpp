#include <iostream>

#include "audit/command_line.h"

int main(int argc, char** argv) { return audit::run_audit(argc, argv, std::cout, std::cerr); }
