#include "blescanner.h"
#include "platform/runtime.h"

int main(int argc, char** argv) {
    return blescanner::runProgram(platform::programArguments(argc, argv));
}
