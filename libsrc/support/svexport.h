// What leaves the library: it is compiled with hidden visibility, and this marks the exceptions.
#ifndef SORVANE_SVEXPORT_H
#define SORVANE_SVEXPORT_H

#define SORVANE_API __attribute__((visibility("default")))

#endif
