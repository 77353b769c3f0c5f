// metrofit: least-squares fits of point files from the command line.
// `metrofit --help` describes the commands and the file format.
#include <iostream>
#include <string>
#include <vector>

#include "tools/metrofit/align_command.h"
#include "tools/metrofit/bestfit2d_command.h"
#include "tools/metrofit/bestfit_command.h"
#include "tools/metrofit/fit_command.h"
#include "tools/metrofit/match_command.h"
#include "tools/metrofit/maximin_command.h"
#include "tools/metrofit/rps_command.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (metrofit_tool::is_bestfit_command(args))
        return metrofit_tool::run_bestfit(args, std::cin, std::cout, std::cerr);
    if (metrofit_tool::is_bestfit2d_command(args))
        return metrofit_tool::run_bestfit2d(args, std::cin, std::cout, std::cerr);
    if (metrofit_tool::is_maximin_command(args))
        return metrofit_tool::run_maximin(args, std::cin, std::cout, std::cerr);
    if (metrofit_tool::is_align_command(args))
        return metrofit_tool::run_align(args, std::cin, std::cout, std::cerr);
    if (metrofit_tool::is_match_command(args))
        return metrofit_tool::run_match(args, std::cin, std::cout, std::cerr);
    if (metrofit_tool::is_rps_command(args))
        return metrofit_tool::run_rps(args, std::cin, std::cout, std::cerr);
    return metrofit_tool::run_metrofit(args, std::cin, std::cout, std::cerr);
}
