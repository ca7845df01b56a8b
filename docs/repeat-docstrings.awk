# Doxygen's input filter. In these headers a docstring describes every declaration that follows it up to an empty line,
# which spares readers "the same for the other one"; Doxygen wants it before each. Operators of a class are described
# with the class, other names of a record with the record. The first docstring is the file's.
function forget_comment() { comment = ""; in_comment = 0 }

/^\/\/\// && !has_file { print "/// @file\n///"; has_file = 1 }
/^[ \t]*\/\/\// && !/^[ \t]*\/\/\/</ {
    if (!in_comment) comment = ""
    comment = comment $0 "\n"
    in_comment = 1
    print
    next
}
/^typedef / && after_record { print "/// Described with its record." }
{ after_record = /^};/ || (after_record && /^typedef /) }
/^[ \t]*$/ || /^[ \t]*(public|private|protected):/ || /^[ \t]*}/ { forget_comment(); print; next }
/^[ \t]*template <.*>$/ && !in_comment { head = $0 "\n"; next }
{
    # The first line after a docstring has it already; a later one that begins a declaration gets a copy.
    if (!in_comment && !continued && !/^[ \t]*[{#\/]/) {
        if (comment != "") printf "%s", comment
        else if (/operator[-+=<>!]/) print "/// Described with its class."
    }
    printf "%s", head
    head = ""
    in_comment = 0
    continued = !/[;}][ \t]*(\/\/.*)?$/
    if (/{[ \t]*(\/\/.*)?$/) { forget_comment(); continued = 0 }
    print
}
