/* A third-part program: knows nothing of wex. */
#include <unistd.h>

int main(void) {
  for (;;) {
    pause();
  }
}
