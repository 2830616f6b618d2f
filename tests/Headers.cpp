// Stands for the headers that all test programs share; CMake wants a source to compile them for.
