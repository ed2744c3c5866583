#include "porter/usage.h"

namespace porter {

namespace {

const char kOptionHelp[] =
    "   -s server\t: Connect to the server \"server\" (default: localhost)\n"
    "   -p port\t: Connect to the port \"port\" (default: 3241)\n"
    "   -d domain\t: Log into the domain \"domain\" (default: .)\n"
    "   -l login\t: Log in as with the username \"login\".\n"
    "   -P password\t: Log in with the given password. If -P is not used,\n"
    "\t\t the user is asked for the password on the command line\n"
    "   -f filename\t: Save the output in the file \"filename\". If no filename\n"
    "\t\t  is given, output is sent to stdout.\n"
    "   -e domain\t: Export everything under the subdomain \"domain\" (default: .)\n"
    "   -i classes\t: Ignore objects of these classes e.g. MibObject,NodeClass\n"
    "   -I classes\t: Include only these classes e.g. Domain,Node\n"
    "             \t  appending a + will cause all sub-objects to be included\n"
    "   -c\t\t: Export only configuration, no historical data.\n"
    "   -h\t\t: This help text.\n"
    "   -z\t\t: The output will be in gz zipped format.\n";

}  // namespace

void print_usage(std::ostream& out, const std::string& programName) {
  out << "Talvix database exporting utility" << std::endl;
  out << "Usage:\n\n" << programName << "  [-t format] [-s server] [-p port] [-d domain]"
      << std::endl;
  out << "\t<-l login> [-P password] [-f filename] [-e export-domain] [-h] [-z]" << std::endl
      << std::endl;
  out << kOptionHelp;
  out << "\nExample: talvix-exporter -ladmin -f backup.dat\n\n";
}

}  // namespace porter
