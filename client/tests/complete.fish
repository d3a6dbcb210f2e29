# What fish completes: complete.fish COMPLETION FILE, where the file has a command line in each line.
# Writes each of them behind "> ", and under it the words offered.

source $argv[1]
while read -l line
    echo "> $line"
    complete -C "$line" | string split -f 1 \t | sort -u
end <$argv[2]
