import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.time.Instant;

/**
 * What clients tried to change and what they were told: a line each, on standard output and, with the time, in a file;
 * at the end the ranges of all writes. Any thread may use it.
 */
final class ChangeRecord {
    private final Path file;
    private final WrittenRanges granted = new WrittenRanges();
    private final WrittenRanges refused = new WrittenRanges();

    /** Goes on in a file that is there. */
    ChangeRecord(Path file) {
        this.file = file;
    }

    void addWrite(boolean isGranted, String export, long from, long length) {
        (isGranted ? granted : refused).add(from, length);
        add(isGranted, export, "write of [" + from + ", " + (from + length) + ")");
    }

    synchronized void add(boolean isGranted, String export, String what) {
        String line = (isGranted ? "granted in " : "refused in ") + export + ": " + what;
        System.out.println(line);
        try {
            Files.write(file, (Instant.now() + " " + line + "\n").getBytes(StandardCharsets.UTF_8),
                        StandardOpenOption.CREATE, StandardOpenOption.APPEND);
        } catch (IOException e) {
            throw new UncheckedIOException(e); // the change counts as refused: nothing is granted without a record
        }
    }

    @Override
    public String toString() {
        return "writes granted: " + granted + "; writes refused: " + refused;
    }
}
