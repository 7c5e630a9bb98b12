# Completes camsim's words in fish: camsim itself says what they can be, each with an explanation behind a tab.
function __camsim_words
    set -lx _ARGCOMPLETE 1
    set -lx _ARGCOMPLETE_DFS \t
    set -lx _ARGCOMPLETE_IFS \n
    set -lx _ARGCOMPLETE_SHELL fish
    set -lx _ARGCOMPLETE_SUPPRESS_SPACE 1
    set -lx COMP_LINE (commandline -p)
    set -lx COMP_POINT (string length (commandline -cp))
    set -lx COMP_TYPE 9
    set -l program (commandline -op)[1]
    eval $program 8>&1 9>/dev/null >/dev/null 2>&1
end
complete --command camsim --no-files --arguments '(__camsim_words)'
