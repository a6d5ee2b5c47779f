// The plug-in shared library: everything it exports comes from the libraries
// linked into it whole (see CMakeLists.txt).
