import java.io.BufferedInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;

/** An image that was written out, and those who judge it. Each tells its finding on standard output. */
final class WrittenImage {
    private static final int BUFFER = 1 << 20;

    private final Path path;

    WrittenImage(Path path) {
        this.path = path;
    }

    /** Does e2fsck find nothing wrong with the file system? It changes nothing. */
    boolean isClean() throws IOException, InterruptedException {
        int status = new ProcessBuilder("e2fsck", "-fn", path.toString()).inheritIO().start().waitFor();
        System.out.println("e2fsck: " + (status == 0 ? "clean" : "NOT CLEAN, exit status " + status));
        return status == 0;
    }

    /** Is it what was backed up, byte for byte? */
    boolean equalsFile(Path original) throws IOException {
        long sizes = Files.size(path) - Files.size(original);
        long at = firstDifference(original);
        boolean equal = sizes == 0 && at < 0;
        System.out.println("Original: " + (equal ? "equal, byte for byte" : sizes != 0 ? "DIFFERS in size by " + sizes
                                                                        : "DIFFERS at byte " + at));
        return equal;
    }

    /** -1: none as far as both go. */
    private long firstDifference(Path original) throws IOException {
        try (InputStream one = new BufferedInputStream(Files.newInputStream(path), BUFFER);
             InputStream other = new BufferedInputStream(Files.newInputStream(original), BUFFER)) {
            for (long at = 0;; at++) {
                int a = one.read();
                int b = other.read();
                if (a < 0 || b < 0) {
                    return -1;
                }
                if (a != b) {
                    return at;
                }
            }
        }
    }
}
