#include "sweep_support.h"

const SweepRoute& TheRoute() {
    static const SweepRoute route;
    return route;
}
