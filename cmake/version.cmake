# The one place of the version: resources, programs and packages take it from here.
set(ORVIK_VERSION 4.0.4)
