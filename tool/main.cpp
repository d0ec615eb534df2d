#include "pkgcheck.h"

int main(int argc, char** argv)
{
    return pkgcheck_run(argc, argv);
}
