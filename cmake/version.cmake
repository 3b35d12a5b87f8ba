# The version of resources, programs and packages. The version text that the crash reporter gets is part
# of its command line, which other programs read: it is in service/service_main.cpp.
set(ORVIK_VERSION 4.0.4)
