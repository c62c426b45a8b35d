// OpenCV's image codecs register GDAL's drivers on first use, and GDAL takes two of its own
// mutexes in both orders while doing so. ThreadSanitizer reports that as a possible deadlock
// inside GDAL; it is none of ours, so it is named here and only there.
extern "C" const char* __tsan_default_suppressions() {
    return "deadlock:libgdal.so\n";
}
