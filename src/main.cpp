#include "vondral.h"

int main(int argc, char** argv) {
    return RunVondral(argc, argv);
}
