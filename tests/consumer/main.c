#include <ravelin/ravelin.h>

#include <stdio.h>

/* That a C compiler alone can link it is the question. */
int main(void) {
  return puts(ravelin_version()) < 0;
}
