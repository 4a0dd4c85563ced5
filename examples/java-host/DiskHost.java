import com.norvo.kbt.quickspin.nfs.NfsLibNative;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.Arrays;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/**
 * A small host: exports a directory and presents in it "disk.img", an image assembled from pieces. Clients read it as
 * one file; what they write is told to this host, which remembers the ranges. Ctrl-C stops it.
 *
 * <pre>java -cp CLASSES DiskHost LIBRARY DIRECTORY</pre>
 */
public final class DiskHost extends NfsLibNative {
    private static final String EXPORT = "data";
    private static final int PIECE = 1 << 20;
    private static final long DISK_SIZE = 4L * PIECE;

    private final Path directory;
    private final WrittenRanges written = new WrittenRanges();
    private final CountDownLatch receiving = new CountDownLatch(1);
    private volatile boolean interrupted;
    private long handle;
    private Thread receiver;

    private DiskHost(Path directory) {
        this.directory = directory;
    }

    public static void main(String[] args) throws Exception {
        System.load(Paths.get(args[0]).toAbsolutePath().toString());
        DiskHost host = new DiskHost(Files.createDirectories(Paths.get(args[1])).toRealPath());
        // Registered before the start: a Ctrl-C in the middle of it must clean up as well.
        Thread hook = new Thread(host::stop, "stop");
        Runtime.getRuntime().addShutdownHook(hook);
        try {
            host.start();
        } catch (IOException e) {
            System.err.println("Cannot start: " + e.getMessage());
            System.exit(1); // by way of the hook
        }
        System.out.println("Ready: " + host.directory + " is exported as \"" + EXPORT + "\", press Ctrl-C to stop");
        host.receiver.join();
    }

    // ---- Life -----------------------------------------------------------------------------------------------------

    private synchronized void start() throws IOException, InterruptedException {
        handle = initial("disk-host", INTERNAL_SERVER, LOG_ERRORS);
        startRemoteController(handle);
        // The lasting callback comes first, so that no notification is ever without a receiver.
        receiver = new Thread(() -> receiveCallbackLoop(handle, -1), "receiver");
        receiver.start();
        receiving.await();
        startServer(handle, 0, 0, false);
        // The disk comes before its export: until it is whole, no client may find the empty file that stands for it.
        presentDisk(directory.resolve("disk.img"), directory.resolveSibling(directory.getFileName() + "-pieces"));
        addMountPoint(handle, directory.toString(), EXPORT);
    }

    /** In the shutdown hook: the virtual machine waits for it, and its other threads still run. */
    private synchronized void stop() {
        stopServer(handle);
        interrupted = true;
        try {
            if (receiver != null) {
                receiver.join(TimeUnit.SECONDS.toMillis(5));
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        stopRemoteController(handle);
        terminate(handle);
        handle = 0;
        System.out.println("Stopped, written ranges: " + written);
    }

    // ---- The disk -------------------------------------------------------------------------------------------------

    /** A piece, two pieces' worth of zeros, and another piece; clients see one file of 4 MiB. */
    private void presentDisk(Path disk, Path pieces) throws IOException {
        Files.createDirectories(pieces);
        Path first = makePiece(pieces.resolve("first"), 'A');
        Path last = makePiece(pieces.resolve("last"), 'Z');
        // Clients find the file by the entry on disk; its content is never looked at.
        Files.write(disk, new byte[0]);
        openRedirectedFile(handle, disk.toString(), DISK_SIZE, false, 0, 0);
        addRedirectedFileSegment(handle, disk.toString(), first.toString(), 0, 0, PIECE);
        addRedirectedFileSegment(handle, disk.toString(), null, 0, PIECE, 2L * PIECE);
        addRedirectedFileSegment(handle, disk.toString(), last.toString(), 0, 3L * PIECE, PIECE);
    }

    private static Path makePiece(Path path, char letter) throws IOException {
        byte[] content = new byte[PIECE];
        Arrays.fill(content, (byte) letter);
        return Files.write(path, content);
    }

    // ---- What the library asks and tells --------------------------------------------------------------------------

    @Override
    public boolean isInterrupted() {
        receiving.countDown();
        return interrupted;
    }

    @Override
    public int writeRedirectedFile(String id, String path, long seek, int seekType, int length) {
        System.out.println("write in " + id + ": " + path + " at " + seek + ", " + length + " bytes");
        written.add(seek, length);
        return length;
    }

    @Override
    public int setRedirectedFileAttributes(String id, String path, boolean hasSize, long size, boolean hasAccessTime,
                                           long accessTime, boolean hasModificationTime, long modificationTime) {
        System.out.println("attributes in " + id + ": " + path + (hasSize ? " size " + size : "")
                           + (hasAccessTime ? " accessed " + accessTime : "")
                           + (hasModificationTime ? " modified " + modificationTime : ""));
        return hasSize && size != DISK_SIZE ? -1 : 0; // a disk does not change its size
    }

    @Override
    public int renameRedirectedFile(String id, String oldPath, String newPath) {
        System.out.println("rename in " + id + ": " + oldPath + " to " + newPath);
        return 0;
    }

    @Override
    public int removeRedirectedFile(String id, String path) {
        System.out.println("removal in " + id + ": " + path);
        return 0;
    }
}
