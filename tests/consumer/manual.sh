# The manual page of the C interface declares every function as the header does, its example
# compiles, and it is found by the name of each function: manual.sh PREFIX COMPILER
set -eu
pages=$1/share/man/man3
{
  echo '#include <ravelin/ravelin.h>'
  echo '#include <stdio.h>'
  sed -n '/^\.nf/,/^\.fi/p' "$pages/ravelin.3" | sed '/^\.B/s/"//g; s/^\.[A-Zfin]* *//; s/\\e/\\/'
} | "$2" -x c -std=c11 -Wall -Wextra -Werror -Wno-unused -fsyntax-only -I "$1/include" -
functions=$(sed -nE 's/^[a-z].*\b(ravelin_[a-z_]+)\(.*/\1/p' "$1/include/ravelin/ravelin.h")
for function in ${functions:?}; do
  cat "$pages/$function.3" >/dev/null
done
