import com.norvo.kbt.quickspin.nfs.NfsLibNative;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/**
 * Instant recovery: lends a disk to clients straight out of the stored files of its backup, as "disk.img" in the export
 * "recovery"; nothing is restored first. Clients keep their changes themselves, in a copy-on-write layer; what they try
 * to change on the disk itself is recorded, and granted or refused by rules. Enter writes the whole image out and has
 * it judged; Ctrl-C gives up.
 *
 * <pre>java -cp CLASSES -Djava.library.path=FOLDER RecoveryHost BACKUP RULES WORK_FOLDER [ORIGINAL_IMAGE]</pre>
 */
public final class RecoveryHost extends NfsLibNative {
    private static final String EXPORT = "recovery";
    private static final String DISK = "disk.img";

    private final Backup backup;
    private final ChangeRules rules;
    private final ChangeRecord record;
    private final Path work;
    private final CountDownLatch receiving = new CountDownLatch(1);
    private volatile boolean interrupted;
    private volatile long handle;
    private Thread receiver;

    private RecoveryHost(Backup backup, ChangeRules rules, Path work) {
        this.backup = backup;
        this.rules = rules;
        this.work = work;
        record = new ChangeRecord(work.resolve("changes.log"));
    }

    public static void main(String[] args) throws Exception {
        System.loadLibrary("NfsLib");
        RecoveryHost host = null;
        try {
            host = new RecoveryHost(Backup.read(Paths.get(args[0])), ChangeRules.read(Paths.get(args[1])),
                                    Files.createDirectories(Paths.get(args[2])).toRealPath());
            // Registered before the start: a Ctrl-C in the middle of it must clean up as well.
            Runtime.getRuntime().addShutdownHook(new Thread(host::stop, "stop"));
            host.start();
        } catch (IOException e) {
            System.err.println("Cannot start: " + e.getMessage());
            System.exit(1); // by way of the hook
        }
        System.out.println("Ready: " + host.backup.size + " bytes in " + host.backup.pieces.size()
                           + " pieces are lent as \"" + EXPORT + "/" + DISK
                           + "\"; Enter writes the whole image out, Ctrl-C gives up");
        new BufferedReader(new InputStreamReader(System.in)).readLine(); // or the end of the input
        WrittenImage image = host.writeOut();
        if (!host.stop()) {
            return; // given up meanwhile: there is nothing to judge
        }
        boolean whole = image.isClean() & (args.length < 4 || image.equalsFile(Paths.get(args[3])));
        System.exit(whole ? 0 : 1);
    }

    // ---- Life -----------------------------------------------------------------------------------------------------

    private synchronized void start() throws IOException, InterruptedException {
        handle = initial("recovery-host", INTERNAL_SERVER, LOG_ERRORS);
        startRemoteController(handle);
        // The lasting callback comes first, so that no notification is ever without a receiver.
        receiver = new Thread(() -> receiveCallbackLoop(handle, -1), "receiver");
        receiver.setDaemon(true);
        receiver.start();
        receiving.await();
        startServer(handle, 0, 0, false);
        // The disk comes before its export: no client finds the empty file that stands for it.
        Path lent = Files.createDirectories(work.resolve("lent"));
        present(lent.resolve(DISK));
        addMountPoint(handle, lent.toString(), EXPORT);
    }

    /**
     * At the end, or in the shutdown hook: the virtual machine waits for it, and its other threads still run. False if
     * there is nothing to stop any more.
     */
    private synchronized boolean stop() {
        if (handle == 0) {
            return false;
        }
        // Ends a write-out in progress, and closes the disk after the clients' connections: closed before, it would leave
        // them the empty file that stands for it.
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
        System.out.println("Stopped, " + record);
        return true;
    }

    // ---- The disk -------------------------------------------------------------------------------------------------

    /** Clients find the disk by an entry on disk whose content is never looked at: they read what the map says. */
    private void present(Path path) throws IOException {
        Files.write(path, new byte[0]);
        openRedirectedFile(handle, path.toString(), backup.size, false, 0, 0);
        for (Backup.Piece piece : backup.pieces) {
            addRedirectedFileSegment(handle, path.toString(), piece.stored == null ? null : piece.stored.toString(),
                                     piece.storedOffset, piece.offset, piece.length);
        }
    }

    /**
     * Writes the whole image out. Clients go on reading meanwhile. What they see may be under another name by now, or
     * gone, if they were granted that; so this is a presentation of its own, which no client reaches. It takes as long
     * as the disk is large, and holds nothing that a stop waits for.
     */
    private WrittenImage writeOut() throws IOException {
        Path whole = work.resolve("whole.img");
        present(whole);
        // The library writes only into files that are there, and below an exported folder.
        Path written = Files.createDirectories(work.resolve("written"));
        Path image = written.resolve(DISK);
        Files.write(image, new byte[0]);
        addMountPoint(handle, written.toString(), "written");
        exportRedirectedFile(handle, whole.toString(), image.toString());
        removeMountPoint(handle, written.toString());
        return new WrittenImage(image);
    }

    // ---- What the library asks: while a method runs every client waits, so all are quick --------------------------

    @Override
    public boolean isInterrupted() {
        receiving.countDown();
        return interrupted;
    }

    /** Tells where a client writes, not what: who grants it says that the data may be lost. */
    @Override
    public int writeRedirectedFile(String id, String path, long seek, int seekType, int length) {
        boolean granted = rules.grantWrite(seek, seek + length);
        record.addWrite(granted, id, seek, length);
        return granted ? length : -1;
    }

    /** A disk keeps its size whatever the rules say: to grant another one would be a lie. */
    @Override
    public int setRedirectedFileAttributes(String id, String path, boolean hasSize, long size, boolean hasAccessTime,
                                           long accessTime, boolean hasModificationTime, long modificationTime) {
        boolean granted = (!hasSize || size == backup.size) && rules.grant(ChangeRules.Change.ATTRIBUTES);
        record.add(granted, id, hasSize ? "size " + size : "times, mode or owner");
        return granted ? 0 : -1;
    }

    /** The file has been renamed already. A refused rename is undone by the library, unless it replaced something. */
    @Override
    public int renameRedirectedFile(String id, String oldPath, String newPath) {
        boolean granted = rules.grant(ChangeRules.Change.RENAME);
        record.add(granted, id, "rename of " + oldPath + " to " + newPath);
        return granted ? 0 : -1;
    }

    /** The file has been removed already, and stays so whatever the answer: who refuses puts the disk there again. */
    @Override
    public int removeRedirectedFile(String id, String path) {
        boolean granted = rules.grant(ChangeRules.Change.REMOVE);
        record.add(granted, id, "removal of " + path);
        if (granted) {
            return 0;
        }
        try {
            present(Paths.get(path));
        } catch (IOException e) {
            System.err.println("The disk is gone: " + e.getMessage());
        }
        return -1;
    }
}
