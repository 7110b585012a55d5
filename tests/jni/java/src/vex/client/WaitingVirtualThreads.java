package vex.client;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/**
 * A hundred virtual threads wait for the handles of a client while another one runs. All have the same carrier, so it
 * only gets to run if those that wait have given the carrier back. Then all sign.
 */
final class WaitingVirtualThreads {
    private static final int THREADS = 100;

    private WaitingVirtualThreads() {}

    public static void main(String[] args) throws Exception {
        ExecutorService executor =
            (ExecutorService) Executors.class.getMethod("newVirtualThreadPerTaskExecutor").invoke(null);
        List<Future<byte[]>> signatures = new ArrayList<>();
        try (SigningClient client = SigningClient.store("demo:").keyAlgorithm(KeyAlgorithm.EC).open()) {
            HandlePool pool = client.session.pool();
            holdAll(pool, Runtime.getRuntime().availableProcessors(), () -> {
                for (int i = 0; i < THREADS; ++i) {
                    signatures.add(executor.submit(() -> client.signRaw("text")));
                }
                while (pool.waiting() < THREADS) {
                    Thread.onSpinWait();
                }
                executor.submit(() -> System.out.println("runs while others wait")).get();
                return null;
            });
            for (Future<byte[]> signature : signatures) {
                signature.get();
            }
        }
        System.out.println(signatures.size() + " signed");
    }

    private interface Work {
        Void run() throws Exception;
    }

    private static Void holdAll(HandlePool pool, int handles, Work work) throws SigningException {
        return pool.call(Selection.ALL, null, handle -> {
            if (handles > 1) {
                return holdAll(pool, handles - 1, work);
            }
            try {
                return work.run();
            } catch (Exception e) {
                throw new IllegalStateException(e);
            }
        });
    }
}
