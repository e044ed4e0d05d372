#include "orkad.h"

int main(int argc, char **argv)
{
    return orkad_main(argc, argv);
}
