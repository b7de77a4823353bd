/* The command lines of the tools' script modes. */
#ifndef ZEL_TOOLS_WORDS_H
#define ZEL_TOOLS_WORDS_H

#include <stdio.h>
#include <string.h>

/* Reads the next command line from standard input into `line` (`size` bytes) and splits it in place at blanks into
 * at most `max` `words`; the number of words (0 for a blank line), or -1 at the end of input or at "quit". */
static inline int readCommand(char* line, int size, char** words, int max) {
    if (!fgets(line, size, stdin))
        return -1;
    int count = 0;
    for (char* word = strtok(line, " \t\r\n"); word && count < max; word = strtok(NULL, " \t\r\n"))
        words[count++] = word;
    return count > 0 && strcmp(words[0], "quit") == 0 ? -1 : count;
}

#endif
