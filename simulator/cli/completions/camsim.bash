# Completes camsim's words in bash: camsim itself says what they can be.
_camsim() {
    local words
    words=$(COMP_LINE=$COMP_LINE COMP_POINT=$COMP_POINT COMP_TYPE=$COMP_TYPE _ARGCOMPLETE=1 _ARGCOMPLETE_IFS=$'\n' \
        _ARGCOMPLETE_COMP_WORDBREAKS=$COMP_WORDBREAKS _ARGCOMPLETE_SUPPRESS_SPACE=1 \
        "$1" 8>&1 9>/dev/null >/dev/null 2>&1)
    COMPREPLY=()
    [[ ! $words ]] || mapfile -t COMPREPLY <<<"$words"
    [[ ${COMPREPLY-} != *[=/:] ]] || compopt -o nospace 2>/dev/null
}
complete -o bashdefault -o default -F _camsim camsim
