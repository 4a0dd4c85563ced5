import java.io.IOException;
import java.io.OutputStream;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Random;

/**
 * Stands for the backup program: cuts a disk's image into pieces of odd lengths and stores them shuffled over a few
 * files, without those that are all zeros. The same image is always cut in the same way.
 *
 * <pre>java -cp CLASSES CutImage IMAGE BACKUP_FOLDER</pre>
 */
final class CutImage {
    private static final int LONGEST_PIECE = 128 << 10;
    private static final int STORED_FILES = 3;

    private final Random random = new Random(1);
    private final RandomAccessFile image;
    private final Path folder;
    private final List<long[]> pieces = new ArrayList<>(); // offset, length

    private CutImage(RandomAccessFile image, Path folder) {
        this.image = image;
        this.folder = folder;
    }

    public static void main(String[] args) throws IOException {
        Path folder = Files.createDirectories(Paths.get(args[1]));
        try (RandomAccessFile image = new RandomAccessFile(args[0], "r")) {
            new CutImage(image, folder).run();
        }
    }

    private void run() throws IOException {
        long size = image.length();
        for (long offset = 0; offset < size; offset += last()[1]) {
            pieces.add(new long[] {offset, Math.min(1 + random.nextInt(LONGEST_PIECE), size - offset)});
        }
        String[] places = store();
        List<String> lines = new ArrayList<>();
        lines.add("size " + size);
        for (int i = 0; i < places.length; i++) {
            lines.add(pieces.get(i)[0] + " " + pieces.get(i)[1] + " " + places[i]);
        }
        Files.write(folder.resolve(Backup.MAP), lines, StandardCharsets.UTF_8);
    }

    private long[] last() {
        return pieces.get(pieces.size() - 1);
    }

    /** Stores all pieces in a shuffled order; what the map says of each. */
    private String[] store() throws IOException {
        String[] places = new String[pieces.size()];
        List<Integer> order = new ArrayList<>();
        for (int i = 0; i < places.length; i++) {
            order.add(i);
        }
        Collections.shuffle(order, random);
        for (int file = 0; file < STORED_FILES; file++) {
            long stored = 0;
            String name = "stored-" + file;
            try (OutputStream output = Files.newOutputStream(folder.resolve(name))) {
                for (int i : order.subList(places.length * file / STORED_FILES,
                                           places.length * (file + 1) / STORED_FILES)) {
                    byte[] bytes = content(pieces.get(i));
                    places[i] = isZero(bytes) ? Backup.ZEROS : name + " " + stored;
                    if (!isZero(bytes)) {
                        output.write(bytes);
                        stored += bytes.length;
                    }
                }
            }
        }
        return places;
    }

    private byte[] content(long[] piece) throws IOException {
        byte[] bytes = new byte[(int) piece[1]];
        image.seek(piece[0]);
        image.readFully(bytes);
        return bytes;
    }

    private static boolean isZero(byte[] bytes) {
        for (byte b : bytes) {
            if (b != 0) {
                return false;
            }
        }
        return true;
    }
}
