import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/**
 * What a backup program has kept of a disk: stored files with pieces of it in no particular order, and a map.
 *
 * <p>The map is the file "map" in the backup's folder, a text: "size BYTES", then a line for each piece of the disk in
 * increasing order, "OFFSET LENGTH STORED_FILE OFFSET_IN_IT", or "OFFSET LENGTH zeros". It has no gaps.
 */
final class Backup {
    static final String MAP = "map";
    static final String ZEROS = "zeros";

    /** A piece of the disk and where its bytes are; no stored file: zeros. */
    static final class Piece {
        final long offset;
        final long length;
        final Path stored;
        final long storedOffset;

        Piece(long offset, long length, Path stored, long storedOffset) {
            this.offset = offset;
            this.length = length;
            this.stored = stored;
            this.storedOffset = storedOffset;
        }
    }

    final long size;
    final List<Piece> pieces;

    private Backup(long size, List<Piece> pieces) {
        this.size = size;
        this.pieces = Collections.unmodifiableList(pieces);
    }

    /** Reads the map; IOException if it is none, has gaps, or names a stored file that is too short. */
    static Backup read(Path folder) throws IOException {
        Path map = folder.resolve(MAP);
        List<String> lines = Files.readAllLines(map, StandardCharsets.UTF_8);
        List<Piece> pieces = new ArrayList<>();
        long end = 0;
        for (int i = 1; i < lines.size(); i++) {
            try {
                Piece piece = parse(folder, lines.get(i).split(" "));
                require(piece.offset == end && piece.length > 0);
                require(piece.stored == null || piece.storedOffset + piece.length <= Files.size(piece.stored));
                pieces.add(piece);
                end += piece.length;
            } catch (RuntimeException e) {
                throw new IOException(map + ", line " + (i + 1) + ": not a piece, or not the next one", e);
            }
        }
        if (lines.isEmpty() || !lines.get(0).equals("size " + end)) {
            throw new IOException(map + ", line 1: not the size of all pieces, \"size " + end + "\"");
        }
        return new Backup(end, pieces);
    }

    private static Piece parse(Path folder, String[] fields) {
        boolean zeros = fields[2].equals(ZEROS);
        require(fields.length == (zeros ? 3 : 4));
        return new Piece(Long.parseLong(fields[0]), Long.parseLong(fields[1]), zeros ? null : folder.resolve(fields[2]),
                         zeros ? 0 : Long.parseLong(fields[3]));
    }

    private static void require(boolean holds) {
        if (!holds) {
            throw new IllegalArgumentException();
        }
    }
}
