package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.ArrayList;
import java.util.Base64;
import java.util.Collections;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.CompletableFuture;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import vex.jni.TAVClientJNI;
import vex.jni.TestStore;
import vex.jni.VCTKError;

/** The handles of one store: how many there are, who gets which, their settings, and their end. */
@Tag("client")
class HandlePoolTest {
    private static final TAVClientJNI NATIVES = new TAVClientJNI();
    private static final int MOST = 3;
    private static final String TEXT = "I owe you 100 euros.";

    @TempDir
    private static Path directory;
    private static String store;
    private static X509Certificate first;
    private static X509Certificate second;

    @BeforeAll
    static void writeStore() throws Exception {
        List<TestStore.Identity> identities =
            List.of(TestStore.identity("RSA", "CN=1", 1, 30, 0), TestStore.identity("RSA", "CN=2", 2, 60, 0));
        store = TestStore.writePem(directory.resolve("keys.pem"), identities);
        first = identities.get(0).certificate();
        second = identities.get(1).certificate();
    }

    private static HandlePool open(int most) throws SigningException {
        return new HandlePool(Handle.open(store, false), most);
    }

    private static Selection only(X509Certificate certificate) throws Exception {
        return Selection.of(Certificates.fingerprint(certificate));
    }

    private static boolean isFinalized(Handle handle) {
        return NATIVES.GetLastError(handle.number) == VCTKError.INVALID_HANDLE;
    }

    /** Makes calls inside one another, so that each needs a handle of its own. */
    private static Void nest(HandlePool pool, int depth, HandlePool.Call<?> call) throws SigningException {
        return pool.call(Selection.ALL, null, handle -> {
            call.with(handle);
            return depth == 1 ? null : nest(pool, depth - 1, call);
        });
    }

    private static long handleOf(HandlePool pool, Selection selection, String digest) throws SigningException {
        return pool.call(selection, digest, handle -> {
            handle.setDigest(digest);
            handle.select(selection);
            return handle.number;
        });
    }

    @Test
    void opensAHandleOnlyForACallThatFindsNoneIdle() throws Exception {
        HandlePool pool = open(MOST);
        for (int i = 0; i < 10; ++i) {
            nest(pool, 1, handle -> handle.text(TAVClientJNI::GetCertList));
        }
        assertEquals(1, pool.handles().size());
        Set<Long> numbers = new HashSet<>();
        for (int depth : new int[] {2, MOST, MOST}) {
            nest(pool, depth, handle -> numbers.add(handle.number));
            assertEquals(depth, numbers.size());
            assertEquals(depth, pool.handles().size());
        }
        pool.close();
    }

    @Test
    void callsBeyondTheLastHandleWaitInTheOrderOfTheirArrival() throws Exception {
        HandlePool pool = open(1);
        List<Integer> order = Collections.synchronizedList(new ArrayList<>());
        List<Thread> threads = new ArrayList<>();
        nest(pool, 1, held -> {
            for (int i = 0; i < 5; ++i) {
                int number = i;
                Thread thread = new Thread(() -> {
                    try {
                        nest(pool, 1, handle -> order.add(number));
                    } catch (SigningException e) {
                        throw new IllegalStateException(e);
                    }
                });
                thread.start();
                while (pool.waiting() <= number) {
                    Thread.onSpinWait();
                }
                threads.add(thread);
            }
            return order.add(-1);
        });
        for (Thread thread : threads) {
            thread.join();
        }
        assertEquals(List.of(-1, 0, 1, 2, 3, 4), order);
        pool.close();
    }

    @Test
    void prefersAHandleThatHasTheSettingsAlready() throws Exception {
        HandlePool pool = open(MOST);
        nest(pool, MOST, handle -> null);
        long one = handleOf(pool, only(first), null);
        long two = handleOf(pool, only(second), null);
        long three = handleOf(pool, only(second), "SHA-512");
        assertEquals(two, three, "another digest is set sooner than another selection");
        long four = handleOf(pool, Selection.ALL.with(Filter.keyAlgorithm("RSA")), "SHA-384");
        assertEquals(3, Set.of(one, two, four).size());
        for (int i = 0; i < 3; ++i) {
            assertEquals(one, handleOf(pool, only(first), null));
            assertEquals(two, handleOf(pool, only(second), "SHA-512"));
            assertEquals(four, handleOf(pool, Selection.ALL.with(Filter.keyAlgorithm("RSA")), "SHA-384"));
        }
        pool.close();
    }

    @Test
    void eachHandleGetsTheSettingsOfTheCall() throws Exception {
        HandlePool pool = open(MOST);
        Signature verifier = Signature.getInstance("RSASSA-PSS");
        verifier.setParameter(new PSSParameterSpec("SHA-512", "MGF1", MGF1ParameterSpec.SHA512, 64, 1));
        Set<Long> numbers = new HashSet<>();
        for (X509Certificate certificate : List.of(first, second, first)) {
            Selection selection = only(certificate);
            nest(pool, MOST, handle -> {
                handle.setDigest("SHA-512/PSS");
                handle.select(selection);
                numbers.add(handle.number);
                byte[] signature = Base64.getDecoder().decode(
                    handle.text((natives, number) -> natives.P1SignString(number, TEXT)));
                assertTrue(isGood(verifier, certificate, signature));
                return null;
            });
            Signature ofDefault = Signature.getInstance("SHA256withRSA");
            nest(pool, MOST, handle -> {
                handle.setDigest(null);
                byte[] signature = Base64.getDecoder().decode(
                    handle.text((natives, number) -> natives.P1SignString(number, TEXT)));
                assertTrue(isGood(ofDefault, certificate, signature));
                return null;
            });
        }
        assertEquals(MOST, numbers.size());
        pool.close();
    }

    private static boolean isGood(Signature verifier, X509Certificate certificate, byte[] signature) {
        try {
            verifier.initVerify(certificate);
            verifier.update(TEXT.getBytes(StandardCharsets.US_ASCII));
            return verifier.verify(signature);
        } catch (Exception e) {
            throw new AssertionError(e);
        }
    }

    @Test
    void eachHandleRefusesSeveralCertificatesIfOneAloneIsWanted() throws Exception {
        HandlePool pool = new HandlePool(Handle.open(store, true), MOST);
        nest(pool, MOST, handle -> {
            SigningException e = assertThrows(SigningException.class,
                () -> handle.text((natives, number) -> natives.P1SignString(number, TEXT)));
            assertEquals(VCTKError.SEVERAL_CERTIFICATES, e.number());
            return null;
        });
        assertEquals(MOST, pool.handles().size());
        pool.close();
    }

    @Test
    void aRefusedFilterDoesNotStay() throws Exception {
        HandlePool pool = open(1);
        Selection refused = only(first).with(Filter.keyAlgorithm("DSA"));
        for (int i = 0; i < 2; ++i) {
            SigningException e = assertThrows(SigningException.class, () -> handleOf(pool, refused, null));
            assertEquals(VCTKError.FILTER_VALUE, e.number());
            handleOf(pool, only(second), null);
            String list = pool.call(only(second), null, handle -> handle.text(TAVClientJNI::GetCertList));
            assertEquals(List.of(Certificates.fingerprint(second)),
                CertificateInfo.parseList(list).stream().map(CertificateInfo::fingerprint).toList());
        }
        pool.close();
    }

    @Test
    void aHandleThatCannotBeOpenedFailsOneCallAndNoOther() throws Exception {
        HandlePool pool = open(2);
        for (int i = 0; i < 5; ++i) {
            nest(pool, 1, handle -> {
                // The toolkit cannot share the store of a handle that is gone.
                NATIVES.Finalize(handle.number);
                SigningException e = assertThrows(SigningException.class, () -> nest(pool, 1, other -> null));
                assertEquals(VCTKError.INVALID_HANDLE, e.number());
                return null;
            });
        }
        assertEquals(1, pool.handles().size());
        pool.close();
    }

    @Test
    void theLastCallInProgressFinalizesAllHandles() throws Exception {
        HandlePool pool = open(MOST);
        nest(pool, MOST, handle -> null);
        List<Handle> handles = pool.handles();
        pool.call(Selection.ALL, null, outer -> {
            nest(pool, 1, inner -> {
                pool.close();
                return inner.text(TAVClientJNI::GetCertList);
            });
            assertFalse(handles.stream().anyMatch(HandlePoolTest::isFinalized));
            return outer.text(TAVClientJNI::GetCertList);
        });
        assertTrue(handles.stream().allMatch(HandlePoolTest::isFinalized));
    }

    @Test
    void workOfSeveralCallsIsCompletedAfterAClose() throws Exception {
        HandlePool pool = open(1);
        Handle only = pool.handles().get(0);
        pool.requireOpen();
        pool.enter();
        pool.close();
        assertThrows(IllegalStateException.class, pool::requireOpen);
        assertThrows(IllegalStateException.class, pool::enter);
        for (int i = 0; i < 2; ++i) {
            String list =
                pool.callEntered(Selection.ALL, null, handle -> handle.text(TAVClientJNI::GetCertList));
            assertEquals(2, CertificateInfo.parseList(list).size());
        }
        assertFalse(isFinalized(only));
        pool.leave();
        assertTrue(isFinalized(only));
    }

    @Test
    void callsThatWaitWhenThePoolIsClosedFinishNormally() throws Exception {
        HandlePool pool = open(1);
        Handle only = pool.handles().get(0);
        List<CompletableFuture<String>> results = new ArrayList<>();
        nest(pool, 1, held -> {
            for (int i = 0; i < 4; ++i) {
                results.add(CompletableFuture.supplyAsync(() -> {
                    try {
                        return pool.call(Selection.ALL, null, handle -> handle.text(TAVClientJNI::GetCertList));
                    } catch (SigningException e) {
                        throw new IllegalStateException(e);
                    }
                }, task -> new Thread(task).start()));
            }
            while (pool.waiting() < 4) {
                Thread.onSpinWait();
            }
            pool.close();
            pool.close();
            assertThrows(IllegalStateException.class, () -> nest(pool, 1, handle -> null));
            assertFalse(isFinalized(only));
            return null;
        });
        for (CompletableFuture<String> result : results) {
            assertEquals(2, CertificateInfo.parseList(result.get()).size());
        }
        while (!isFinalized(only)) {
            Thread.onSpinWait();  // the last of the threads finalizes it after its result is known
        }
    }
}
