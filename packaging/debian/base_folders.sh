# The base system's own folders, which go with the last file in them.
for folder in bin lib share share/man; do
    [ -e "/usr/local/$folder" ] || mkdir -m 755 "/usr/local/$folder"
done
