# Turns the comments of a header into the form that Doxygen reads, a paragraph at a time. A comment belongs to everything
# declared in its paragraph: it is the heading of several constants, and is repeated above each of several functions.
BEGIN {
    RS = ""
}

{
    constants = gsub(/\n#define /, "&")
    lineNum = split($0, lines, "\n")
    comment = ""
    inComment = 0
    for (i = 1; i <= lineNum; ++i) {
        line = lines[i]
        if (line ~ /^\/\* ----/) {
            continue
        }
        if (line ~ /^ *\/\*/) {
            comment = ""
            inComment = 1
            sub(/\/\*/, NR == 1 ? "/** @file\n" : "/**", line)
        }
        if (inComment) {
            comment = comment line "\n"
            inComment = line !~ /\*\/$/
            atOnce = !inComment
            continue
        }
        if (comment != "" && atOnce && constants > 1) {
            gsub(/\/\*\*|\*\/|\n *\*|\n|`/, " ", comment)
            print "/** @name " comment "\n@{ */"
        } else if (comment != "" && (atOnce || line ~ /^(DIF_API |[a-z].*\()/)) {
            printf "%s", comment
        }
        atOnce = 0
        if (line !~ /^#pragma/) {
            sub(/\/\* /, "/**< ", line)
        }
        print line
    }
    print (comment != "" && constants > 1 ? "/** @} */\n" : "")
}
