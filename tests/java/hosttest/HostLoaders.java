package hosttest;

import com.norvo.kbt.quickspin.nfs.NfsLibNative;
import java.lang.ref.WeakReference;
import java.lang.reflect.InvocationTargetException;
import java.net.URL;
import java.net.URLClassLoader;

/** Host classes of two class loaders in one machine, as two web applications have them. */
public final class HostLoaders {
    private static final int MOUNT_PORT = 11058;
    private static final int NFS_PORT = 12049;

    private HostLoaders() {}

    /** Called in the second loader, by reflection: a library belongs to the loader of the class that loads it. */
    public static String serveOnce(String library, String folder) throws Exception {
        System.load(library);
        NfsLibNative host = new NfsLibNative();
        long handle = host.initial("second", 0, 1);
        try {
            host.startServer(handle, MOUNT_PORT, NFS_PORT, false);
            host.addMountPoint(handle, folder, "second");
            return "mounts " + host.getMountInfo(handle, false, true);
        } finally {
            host.stopServer(handle);
            host.terminate(handle);
        }
    }

    /** The library of this loader in a second one, then a copy of it, then the copy again in a third. */
    static String run(String library, String copy, String folder) throws Exception {
        String same = tryInLoader(library, folder, null);
        WeakReference<?>[] second = new WeakReference<?>[1];
        String other = tryInLoader(copy, folder, second);
        // The copy is free for another loader as soon as the first one, with its classes, is gone.
        for (int i = 0; i < 100 && second[0].get() != null; i++) {
            System.gc();
            Thread.sleep(10);
        }
        String gone = second[0].get() == null ? "gone" : "still there";
        return same + "; " + other + "; " + gone + "; " + tryInLoader(copy, folder, null);
    }

    private static String tryInLoader(String library, String folder, WeakReference<?>[] kept) throws Exception {
        URL classes = HostLoaders.class.getProtectionDomain().getCodeSource().getLocation();
        URLClassLoader loader = new URLClassLoader(new URL[] {classes}, ClassLoader.getPlatformClassLoader());
        try (loader) {
            if (kept != null) {
                kept[0] = new WeakReference<>(loader);
            }
            return (String) loader.loadClass("hosttest.HostLoaders")
                .getMethod("serveOnce", String.class, String.class).invoke(null, library, folder);
        } catch (InvocationTargetException e) {
            return e.getCause().getClass().getSimpleName();
        }
    }
}
