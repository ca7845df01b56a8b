# Doxygen's input filter. In these headers a docstring describes every declaration that follows it up to an empty line,
# which spares readers "the same for the other one"; Doxygen wants it before each. Operators of a class are described
# with the class.
function flush_comment() { comment = ""; open = 0 }
/^[ \t]*\/\/\// && !/^[ \t]*\/\/\/</ {
    if (!open) comment = ""
    comment = comment $0 "\n"
    open = 1
    print
    next
}
/^[ \t]*$/ || /^[ \t]*(public|private|protected):/ || /^[ \t]*}/ { flush_comment(); print; next }
{
    # The first line after a docstring has it already; a later one that begins a declaration gets a copy.
    if (comment != "" && !open && !continued && !/^[ \t]*[{#\/]/) printf "%s", comment
    if (comment == "" && !continued && /operator[-+=<>!]/) print "/// Described with its class."
    open = 0
    continued = !/[;}][ \t]*(\/\/.*)?$/
    if (/{[ \t]*(\/\/.*)?$/) flush_comment()
    print
}
